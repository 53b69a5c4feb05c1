#include "Tarvo/TaskWaker.h"

#include "Tarvo/MakeTask.h"
#include "support/SchedulerFixture.h"

namespace {

using namespace testsupport;
using Tarvo::TaskWaker;

struct Waker : SchedulerFixture {
  static void elsewhere(const std::function<void()>& body) { std::thread(body).join(); }
};

TEST_F(Waker, SchedulesAnyKindOfTaskOnceForAllWakes) {
  const auto logs = [&](const char* what) { return [=, this] { log.push_back(what); }; };
  const auto task = makeTask(root, TaskPriority::normal, "task", logs("task"));
  const auto timer = makeTimerTask(root, TaskPriority::high, "timer", logs("timer"));
  const auto both = makeDescriptorTask(root, TaskPriority::low, "both", -1, logs("r"), logs("w"));
  const TaskWaker wakers[] = {TaskWaker(*task), TaskWaker(*timer),
                              TaskWaker(*both, TaskWaker::Direction::read),
                              TaskWaker(*both, TaskWaker::Direction::write), TaskWaker()};
  for (const bool inVirtualTime : {false, true}) {
    Platform::setFastForward(inVirtualTime);
    for (const bool elsewhereFirst : {false, true}) {
      log.clear();
      timer->scheduleTaskDelay(1e9);
      const auto wakeAll = [&] {
        for (const TaskWaker& waker : wakers) waker.wake(), waker.wake();
      };
      elsewhereFirst ? elsewhere(wakeAll) : wakeAll();
      Platform::doEventLoop();  // the timer did not wait
      EXPECT_EQ(log, (RunLog{"timer", "task", "r", "w"}));
      EXPECT_LT(Tarvo::time(), 1e8);
    }
  }
}

TEST_F(Waker, WakesBetweenRuns) {
  const auto first = make("first", TaskPriority::low);
  const auto second = make("second", TaskPriority::high);
  const TaskWaker waker(*second);
  first->body = [&](TestTask& self) {
    elsewhere([&] { waker.wake(); });
    if (log.size() < 3) self.scheduleTask();
  };
  first->scheduleTask();
  runLoop();
  EXPECT_EQ(log, (RunLog{"first", "second", "first", "second"}));
}

TEST_F(Waker, IsHarmlessWhenTaskOrThreadAreGone) {
  TaskWaker ofTask, ofThread;
  ofTask = TaskWaker(*make("short"));
  ofTask.wake();
  elsewhere([&] {
    const auto task =
        makeTask(Tarvo::schedulerRootTarvo(), TaskPriority::normal, "elsewhere", [] { FAIL(); });
    ofThread = TaskWaker(*task);
    ofThread.wake();
  });
  ofThread.wake();
  Platform::doEventLoop();
  EXPECT_EQ(log, RunLog{});
}

TaskWaker signalled;

TEST_F(Waker, MayBeUsedBySignalHandlers) {
  const auto task = make("task");
  task->body = [](TestTask&) { Platform::stopEventLoop(); };
  signalled = TaskWaker(*task);
  const auto before = std::signal(SIGALRM, [](int) {
    const int own = std::exchange(errno, 7);
    signalled.wake();
    if (std::exchange(errno, own) != 7) std::abort();
  });
  ualarm(2000, 0);
  Platform::doEventLoop(60);
  EXPECT_EQ(log, RunLog{"task"});
  std::signal(SIGALRM, before);
  signalled = {};
}

TEST_F(Waker, WhatThrowsLeavesTheOthersToBeServed) {
  const auto first = make("first"), second = make("second");
  const TaskWaker wakers[] = {TaskWaker(*first), TaskWaker(*second)};
  first->onBusy = [](TestTask& self) {
    self.onBusy = nullptr;
    throw 7;
  };
  for (const TaskWaker& waker : wakers) waker.wake();
  EXPECT_THROW(Platform::doEventLoop(), int);
  Platform::doEventLoop();
  EXPECT_EQ(log, (RunLog{"first", "second"}));
}

}  // namespace
