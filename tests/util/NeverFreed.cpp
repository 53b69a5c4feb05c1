/// Uses the library in two threads. With an argument a task loses a block, and keeps another one.

#include <cstdlib>
#include <thread>

#include "Tarvo/Counters.h"
#include "Tarvo/Exception.h"
#include "Tarvo/TaskScheduler.h"

namespace {

void* volatile kept = nullptr;
bool loses = false;

struct Once : Tarvo::Task {
  using Task::Task;
  void taskExecute() override {
    if (!loses) return;
    kept = std::malloc(777);
    kept = std::malloc(555);
  }
};

void use() {
  const auto once =
      std::make_shared<Once>(Tarvo::schedulerRootTarvo(), Tarvo::TaskPriority::normal, "once");
  once->scheduleTask();
  Tarvo::Platform::doEventLoop();
  Tarvo::Counter("runs_total").valueInc();
  if (Tarvo::RuntimeException("x").text().empty()) std::abort();
}

}  // namespace

int main(int argc, char**) {
  std::thread(use).join();
  loses = argc > 1;
  use();
}
