#include "support/SchedulerFixture.h"

namespace {

using namespace testsupport;

struct RunLoop : SchedulerFixture {};

TEST_F(RunLoop, AThrowLeavesTheOthersQueuedAndTheRunClosed) {
  const auto bad = make("bad", TaskPriority::high, [](TestTask& self) {
    self.scheduleTask();
    throw std::runtime_error("bad");
  });
  const auto good = make("good");
  for (const auto& each : {bad, good}) each->scheduleTask();
  testing::internal::CaptureStderr();
  EXPECT_THROW(runLoop(), std::runtime_error);
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              testing::ContainsRegex("H bad of scheduler root threw after [0-9]\\.[0-9]{6} s\n$"));
  EXPECT_FALSE(bad->taskCurrentlyRunning());
  EXPECT_EQ(events().back(), "run end bad");
  EXPECT_THAT(root->historyRenderTextForDebugToString(), HasSubstr("run end      bad threw\n"));
  bad->body = nullptr;
  runLoop();
  EXPECT_EQ(bad->getStats().taskThrewCount(), 1U);
  good->onBusy = [](TestTask&) { throw 2; };
  EXPECT_THROW(good->scheduleTask(), int);
  good->onBusy = nullptr;
  runLoop();
  EXPECT_THAT(log, ElementsAre("bad", "bad", "good", "good"));
}

TEST_F(RunLoop, BodiesMayDestroyAndRearrangeEverything) {
  auto victim = make("victim");
  const auto last = make("last"), suspended = make("suspended");
  TestTaskPtr self = make("self", TaskPriority::high, [&](TestTask& task) {
    victim.reset();
    suspended->taskSuspendedIs(true);
    task.scheduleTask();
    task.taskSuspendedIs(true);
    EXPECT_EQ(root->currentlyRunningTask(), &task);
    EXPECT_EQ(task.getStats().taskStatusString(), "*h");
    self.reset();
    EXPECT_EQ(Platform::doEventLoop(0.0), -1) << "no loop inside a run";
    EXPECT_THAT(failureOf([&] { root->handleSchedulerRun(); }),
                HasSubstr("root is in the middle of running H self"));
  });
  for (const auto& task : {self, victim, suspended, last}) task->scheduleTask();
  runLoop();
  EXPECT_EQ(root->completedTaskStatForTest("self")->taskCompletedCount(), 1U);
  suspended->body = [&](TestTask&) { root->suspendedIs(true); };
  suspended->taskSuspendedIs(false);
  last->scheduleTask();
  runLoop();
  EXPECT_EQ(log.back(), "suspended");
  root->suspendedIs(false);
  runLoop();
  EXPECT_THAT(log, ElementsAre("self", "last", "suspended", "last"));
}

TEST_F(RunLoop, AThrowingTaskMayTakeItsSchedulerAlong) {
  std::weak_ptr<Tarvo::TaskSchedulerRoot> gone;
  TestTaskPtr task;
  const auto dropAndThrow = [&](TestTask&) {
    task.reset();
    throw std::runtime_error("bad");
  };
  for (const int way : {0, 1, 2}) {
    auto own = Tarvo::schedulerRootTarvoNonShared("own");
    auto* const unowned = own.get();
    gone = own;
    task = make("t", TaskPriority::low, dropAndThrow, std::move(own));
    task->scheduleTask();
    if (way == 0) event_base_loop(Tarvo::leInit(), EVLOOP_ONCE);  // which keeps the exception
    EXPECT_THROW(way == 1 ? unowned->handleSchedulerRun() : runLoop(), std::runtime_error);
    EXPECT_TRUE(gone.expired());
    runLoop();
  }
}

TEST_F(RunLoop, MisuseEndsTheProcessEvenWhenAssertionsThrow) {
  const auto task = make("t");
  EXPECT_DEATH(make("bad", TaskPriority(9)), "Task: bad has priority 9");
  EXPECT_DEATH(std::jthread([&] { task->scheduleTask(); }),
               "Executing in wrong thread [0-9]+\\(.*\\) pid [0-9]+ scheduler "
               "belongs to thread [0-9]+\\(.*\\) pid [0-9]+");
  root->threadSanityDisabledIs(true);
  std::jthread([&] { task->taskWorkCountInc(1); });
}

TEST_F(RunLoop, TheSlipIsTheLongestLatencyOfAStep) {
  const TestClock clock;
  const auto task = make("t");
  for (const double late : {0.002, 0.001}) {
    task->scheduleTask();
    TestClock::advance(late);
    task->taskRunAndRecordFromTest();
    EXPECT_EQ(root->lastSchedulerLatency(), std::lround(late * 1e9));
    EXPECT_GE(root->maxSchedulerSlip(), 2'000'000);
    runLoop();  // asks no more
  }
}

}  // namespace
