#include <Tarvo/MakeTask.h>
#include <Tarvo/TaskScheduler.h>

#include <iostream>

int main() {
  const auto root = Tarvo::schedulerRootTarvo();
  const auto dig = Tarvo::makeTask(root, Tarvo::TaskPriority::low, "dig", [](Tarvo::Task& self) {
    while (!self.taskShouldYield()) self.taskWorkCountInc(1);
    self.scheduleTask();  // the rest at its next turn
  });
  const auto beat =
      Tarvo::makeTimerTask(root, Tarvo::TaskPriority::high, "beat", [](Tarvo::TimerTask& self) {
        if (self.taskRunCount() == 10) Tarvo::Platform::stopEventLoop();
        self.scheduleTaskDelay(0.1);
      });
  dig->taskQuantumIs(1'000'000);  // 1 ms; it does not matter how much there is to dig
  dig->scheduleTask();
  beat->scheduleTask();
  Tarvo::Platform::doEventLoop();
  root->statsRenderTextForDebug(std::cout);
}
