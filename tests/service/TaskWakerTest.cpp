#include "Tarvo/TaskWaker.h"

#include "support/SchedulerFixture.h"

namespace {

using namespace testsupport;
using Tarvo::TaskWaker;

struct Waker : SchedulerFixture {
  static void elsewhere(const std::function<void()>& body) { std::thread(body).join(); }
};

TEST_F(Waker, SchedulesAnyKindOfTaskOnceForAllWakes) {
  struct Reads : Tarvo::FileDescriptorTask {
    using FileDescriptorTask::FileDescriptorTask;
    void taskExecuteReadable() override { ran += 'r'; }
    void taskExecuteWritable() override { ran += 'w'; }
    std::string ran;
  };
  const auto task = make("task");
  const auto timer =
      std::make_shared<Logged<Tarvo::TimerTask>>(root, TaskPriority::high, "timer", log);
  const auto reads = std::make_shared<Reads>(root, TaskPriority::low, "descriptor");
  const TaskWaker wakers[] = {TaskWaker(*task), TaskWaker(*timer),
                              TaskWaker(*reads, TaskWaker::Direction::read),
                              TaskWaker(*reads, TaskWaker::Direction::write), TaskWaker()};
  for (const bool inVirtualTime : {false, true}) {
    Platform::setFastForward(inVirtualTime);
    for (const bool elsewhereFirst : {false, true}) {
      log.clear();
      reads->ran.clear();
      timer->scheduleTaskDelay(1e9);
      const auto wakeAll = [&] {
        for (const TaskWaker& waker : wakers) waker.wake(), waker.wake();
      };
      elsewhereFirst ? elsewhere(wakeAll) : wakeAll();
      Platform::doEventLoop();  // the timer did not wait
      EXPECT_EQ(log, (RunLog{"timer", "task"}));
      EXPECT_EQ(reads->ran, "rw");
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
    const auto task = std::make_shared<TestTask>(Tarvo::schedulerRootTarvo(), TaskPriority::normal,
                                                 "elsewhere", log);
    ofThread = TaskWaker(*task);
    ofThread.wake();
  });
  ofThread.wake();
  Platform::doEventLoop();
  EXPECT_EQ(log, RunLog{});
}

TaskWaker signalled;

TEST_F(Waker, MayBeUsedBySignalHandlers) {
  const auto task =
      make("task", TaskPriority::normal, [](TestTask&) { Platform::stopEventLoop(); });
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
