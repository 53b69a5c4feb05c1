// A handler written for the event loop is moved onto a task by changing the line that asks for its
// control. From then on its calls have a priority, a quantum, figures and a trail.

#include <Tarvo/TaskControl.h>

#include <cstdio>

struct Poll : Tarvo::Platform::TimeoutHandler {
  void timeout() override {
    std::printf("poll %d\n", ++polls);
    if (polls % 2 == 1) timer->setTimeout(0.01);
  }
  int polls = 0;
  std::shared_ptr<Tarvo::Platform::TimerControl> timer;
};

int main() {
  Poll poll;
  poll.timer = Tarvo::Platform::getTimerControl(&poll);
  poll.timer->setTimeout(0.01);
  while (poll.polls < 2) Tarvo::Platform::doEventLoop(0.1);

  const auto root = Tarvo::schedulerRootTarvo();
  poll.timer =
      Tarvo::Platform::getTimerControl(&poll, root, Tarvo::TaskPriority::low, "poll");  // this line
  poll.timer->setTimeout(0.01);
  while (poll.polls < 4) Tarvo::Platform::doEventLoop(0.1);
  std::printf("task %s: %u runs\n", root->taskStatForTest("poll")->taskName().c_str(),
              root->taskStatForTest("poll")->taskRunCount());
  std::fflush(stdout);
  root->historyRenderTextForDebug(1);
}
