#include "support/AllocationCount.h"
#include "support/SchedulerFixture.h"

namespace {

using namespace testsupport;

struct ReadingTask : Tarvo::FileDescriptorTask {
  using FileDescriptorTask::FileDescriptorTask;
  void taskExecuteReadable() override { EXPECT_EQ(read(taskWatchFd(), &last, 1), 1); }
  void taskExecuteWritable() override {}
  char last = 0;
};

TEST_F(SchedulerFixture, SteadyWorkOfEveryKindOfTaskAllocatesNothing) {
  log.reserve(10000);
  const SocketPair pair;
  const auto plain = make("plain");
  const auto other = make("other");
  const auto group = std::make_shared<Tarvo::TaskGroup>("g", TaskPriority::high, false, root);
  const auto normal = TaskPriority::normal;
  const auto member = std::make_shared<TestTask>(group, normal, "member", log);
  const auto timer = std::make_shared<Logged<Tarvo::TimerTask>>(root, normal, "timer", log);
  const auto reader = std::make_shared<ReadingTask>(root, normal, "reader");
  reader->taskWatchFdIs(pair.ends[0]);
  unsigned long counted = 0;
  for (int round = 0; round < 600; ++round) {
    if (round == 200) counted = allocations;  // what is made at first use is there
    for (const auto& task : {plain, other, member}) task->scheduleTask();
    other->unscheduleTask();
    timer->scheduleTaskDelay(1000.0 + round);
    timer->scheduleTaskDelay(0);
    ASSERT_EQ(write(pair.ends[1], "x", 1), 1);
    for (int pass = 0; pass < 8; ++pass) Platform::doEventLoop(0.0);
  }
  EXPECT_EQ(allocations, counted);
  EXPECT_EQ(log.size(), 3 * 600U);
  EXPECT_EQ(reader->taskRunCountReadable(), 600U);
}

TEST_F(SchedulerFixture, ADescriptorThatFindsNoMemoryIsFreeForTheNextTry) {
  const auto normal = TaskPriority::normal;
  for (const bool shared : {false, true}) {
    bool refused = true;
    for (unsigned long nth = 1; refused; ++nth) {
      refused = false;
      const SocketPair pair;
      auto first = std::make_shared<ReadingTask>(root, normal, "first");
      const auto second = std::make_shared<ReadingTask>(root, normal, "second");
      if (shared) first->taskWatchFdIs(pair.ends[0]);
      refusedAllocation = nth;
      try {
        second->taskWatchFdIs(pair.ends[0]);
      } catch (const std::bad_alloc&) {
        refused = true;
        EXPECT_EQ(second->taskWatchFd(), -1);
      }
      refusedAllocation = 0;
      second->taskWatchFdIs(pair.ends[0]);
      first.reset();
      ASSERT_EQ(write(pair.ends[1], "x", 1), 1);
      for (int pass = 0; pass < 4; ++pass) Platform::doEventLoop(0.0);
      EXPECT_EQ(second->last, 'x') << nth;
    }
  }
}

TEST_F(SchedulerFixture, ABodyThatThrowsNeedsNoMemory) {
  const auto group = std::make_shared<Tarvo::TaskGroup>("g", TaskPriority::high, false, root);
  const auto other = make("other");
  testing::internal::CaptureStderr();  // the traces of what was thrown
  for (unsigned long n = 1; n < 8; ++n) {
    auto thrower = std::make_shared<TestTask>(group, TaskPriority::normal, "thrower", log);
    thrower->body = [&](TestTask&) {
      thrower.reset();  // its last reference but the scheduler's
      refusedAllocation = n;
      if (n % 2 == 0) throw std::bad_alloc();
      throw 5;
    };
    thrower->scheduleTask();
    other->scheduleTask();
    if (n % 2 == 0) {
      EXPECT_THROW(runLoop(), std::bad_alloc);
    } else {
      EXPECT_THROW(runLoop(), int);
    }
    refusedAllocation = 0;
    runLoop();
    EXPECT_THAT(std::exchange(log, {}), ElementsAre("thrower", "other")) << n;
  }
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(group->tasksPerPriority(TaskPriority::normal), 0U);
}

}  // namespace
