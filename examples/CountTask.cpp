/// The smallest task program: one task that shares its thread by yielding when its quantum is used
/// up, beside a timer that therefore keeps ticking.

#include <cstdio>

#include "Tarvo/TaskScheduler.h"

namespace {

struct Count : Tarvo::Task {
  using Task::Task;
  void taskExecute() override {
    while (next <= last) {
      sum += next++;
      if (next % 1000 == 0 && taskShouldYield()) return scheduleTask();  // the rest in its turn
    }
    std::printf("sum %llu after %u runs\n", sum, taskRunCount());
  }
  unsigned long long next = 1;
  unsigned long long last = 50'000'000;
  unsigned long long sum = 0;
};

}  // namespace

int main() {
  const auto root = Tarvo::schedulerRootTarvo();
  {
    const auto count = std::make_shared<Count>(root, Tarvo::TaskPriority::low, "count");
    count->taskQuantumIs(std::chrono::milliseconds(5));
    count->scheduleTask();
    Tarvo::Platform::doEventLoop();  // returns when nothing is left to do
  }
  root->historyRenderTextForDebugStdErr();  // what happened, the newest first
}
