#include <Tarvo/CheckIncompat.h>
#include <Tarvo/Exception.h>
#include <Tarvo/Symbols.h>
#include <Tarvo/TaskScheduler.h>
#include <Tarvo/Trace.h>

#include <cstdio>

namespace {

struct Once : Tarvo::Task {
  using Task::Task;
  void taskExecute() override { Tarvo::RuntimeException::throwException("ran"); }
};

}  // namespace

int main() {
  Tarvo::checkIncompat();
  TARVO_TRACE(Tarvo::Platform::getDebugHandler("TarvoConsumer"), 0, "started {}", 1);
  const auto once =
      std::make_shared<Once>(Tarvo::schedulerRootTarvo(), Tarvo::TaskPriority::normal, "once");
  once->scheduleTask();
  try {
    Tarvo::Platform::doEventLoop();
  } catch (const Tarvo::RuntimeException& e) {
    std::puts(e.msg().c_str());
    return Tarvo::Symbols().of(reinterpret_cast<const void*>(&Tarvo::checkIncompat)).function ==
                   "Tarvo::checkIncompat()"
               ? 0
               : 2;
  }
  return 1;
}
