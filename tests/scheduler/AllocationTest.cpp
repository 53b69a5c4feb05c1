#include "support/AllocationCount.h"
#include "support/SchedulerFixture.h"

namespace {

using namespace testsupport;

struct ReadingTask : Tarvo::FileDescriptorTask {
  using FileDescriptorTask::FileDescriptorTask;
  void taskExecuteReadable() override {
    char byte;
    EXPECT_EQ(read(taskWatchFd(), &byte, 1), 1);
  }
  void taskExecuteWritable() override {}
};

struct AllocationTest : SchedulerFixture {
  std::shared_ptr<Tarvo::TaskGroup> group =
      std::make_shared<Tarvo::TaskGroup>("g", TaskPriority::high, false, root);
  TestTaskPtr other = make("other");
};

TEST_F(AllocationTest, SteadyWorkOfEveryKindOfTaskDoesWithout) {
  log.reserve(10000);
  const SocketPair pair;
  const auto plain = make("plain"), member = make("member", TaskPriority::low, nullptr, group);
  const auto timer =
      std::make_shared<Logged<Tarvo::TimerTask>>(root, TaskPriority::normal, "timer", log);
  const auto reader = std::make_shared<ReadingTask>(root, TaskPriority::normal, "reader");
  reader->taskWatchFdIs(pair.ends[0]);
  unsigned long counted = 0;
  for (int round = 0; round < 600; ++round) {
    if (round == 200) counted = allocations;  // what is made at first use is there
    for (const auto& task : {plain, other, member}) task->scheduleTask();
    other->unscheduleTask();
    timer->scheduleTaskDelay(1000.0 + round);
    timer->scheduleTaskDelay(0);
    ASSERT_EQ(write(pair.ends[1], "x", 1), 1);
    runTurns(8);
  }
  EXPECT_EQ(allocations, counted);
  EXPECT_EQ(log.size(), 3 * 600U);
  EXPECT_EQ(reader->taskRunCountReadable(), 600U);
}

TEST_F(AllocationTest, ABodyThatThrowsNeedsNone) {
  testing::internal::CaptureStderr();  // the traces of what was thrown
  for (unsigned long n = 1; n < 8; ++n) {
    auto thrower = make("thrower", TaskPriority::normal, nullptr, group);
    thrower->body = [&](TestTask&) {
      thrower.reset();  // its last reference but the scheduler's
      refusedAllocation = n;
      if (n % 2 == 0) throw std::bad_alloc();
      throw 5;
    };
    for (const auto& task : {thrower, other}) task->scheduleTask();
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
