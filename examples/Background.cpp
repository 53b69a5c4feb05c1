// Three tasks without end share what a group of low priority may take, while requests go on being
// answered in between.

#include <Tarvo/TaskScheduler.h>

#include <cstdio>
#include <string>
#include <vector>

using std::chrono::milliseconds;
using Tarvo::TaskPriority;

/// Works whenever it is let.
struct Digger : Tarvo::Task {
  using Task::Task;
  void taskExecute() override {
    do {
      for (int i = 0; i < 1000; ++i) depth = depth * 6364136223846793005ULL + 1;
      taskWorkCountInc(1000);
    } while (!taskShouldYield());
    scheduleTask();
  }
  unsigned long long depth = 0;
};

/// Comes every five milliseconds.
struct Request : Tarvo::TimerTask {
  using TimerTask::TimerTask;
  void taskExecute() override {
    if (++count < 40) scheduleTaskDelay(milliseconds(5));
  }
  int count = 0;
};

int main() {
  const auto root = Tarvo::schedulerRootTarvo();
  const auto group =
      std::make_shared<Tarvo::TaskGroup>("background", TaskPriority::low, false, root);
  group->taskGroupQuantumIs(milliseconds(2));  // what a request may have to wait, and one run

  std::vector<std::shared_ptr<Digger>> diggers;
  for (const char* name : {"first", "second", "third"}) {
    diggers.push_back(std::make_shared<Digger>(group, TaskPriority::normal, name));
    diggers.back()->taskQuantumIs(milliseconds(1));
    diggers.back()->scheduleTask();
  }
  const auto request = std::make_shared<Request>(root, TaskPriority::high, "request");
  request->scheduleTask();
  while (request->count < 40) Tarvo::Platform::doEventLoop(0.1);

  const auto show = [](const Tarvo::TaskStat& stat) {
    std::printf("%-10s %6u runs %9.3f ms, longest wait %7.3f ms\n", stat.taskName().c_str(),
                stat.taskRunCount(), static_cast<double>(stat.taskTotalRunTime()) / 1e6,
                static_cast<double>(stat.taskSchedulingLatencyHighWaterMark()) / 1e6);
  };
  show(request->getStats());
  show(*root->taskStatForTest("background"));
  for (const auto& digger : diggers) show(digger->getStats());
}
