#include <climits>

#include "support/SchedulerFixture.h"
#include "support/TestClock.h"

namespace {

using namespace testsupport;

struct TaskTest : SchedulerFixture {};

TEST_F(TaskTest, LeavesATrailFromCreationToDeletion) {
  {
    const auto task = make("t");
    task->scheduleTask();
    task->scheduleTask();
    EXPECT_EQ(root->runnableTaskCount(), 1U);
    runLoop();
    task->scheduleTask();
    task->unscheduleTask();
    task->unscheduleTask();
    task->taskTestYieldRatioIs(3);
    task->taskTestYieldRatioIs(0);
    task->scheduleTask();
    runLoop();
    root->clearHistory();
    task->taskSuspendedIs(true);
    task->scheduleTask();
    EXPECT_FALSE(task->taskScheduled());
    task->taskSuspendedIs(false);
    EXPECT_TRUE(task->taskScheduled());
    task->taskSuspendedIs(true);
    runLoop();
  }
  EXPECT_THAT(log, ElementsAre("t", "t"));
  EXPECT_THAT(events(), ElementsAre("suspendOn t", "scheduleSus t", "suspendOff t", "schedule t",
                                    "schedulerRunnable root", "busy t", "suspendOn t",
                                    "unschedule t", "idle t", "schedulerIdle root", "delete t"));
}

TEST_F(TaskTest, TestRatioCountsOverRunsAndWrapsAt256) {
  std::string answers;
  const auto task = make("t", TaskPriority::normal, [&](TestTask& self) {
    for (int i = 0; i < 100; ++i) answers += self.taskShouldYield() ? 'y' : '-';
  });
  root->taskTestYieldRatioIs(60);
  for (int run = 0; run < 4; ++run) task->taskRunFromTest();
  std::vector<std::size_t> yields;
  for (std::size_t i = 0; i < answers.size(); ++i) {
    if (answers[i] == 'y') yields.push_back(i + 1);
  }
  EXPECT_THAT(yields, ElementsAre(60, 120, 180, 240, 256, 316, 376))
      << "0 is a multiple of everything";
  answers.clear();
  task->taskTestYieldRatioIs(3);
  task->taskRunFromTest();
  EXPECT_EQ(answers.substr(0, 7), "--y--y-");
  answers.clear();
  task->taskForceYieldInTestIs(true);
  task->taskRunFromTest();
  EXPECT_EQ(answers, std::string(100, 'y'));
  root->taskTestYieldRatioIs(0);
  EXPECT_EQ(task->taskShouldYieldMode(), TestTask::TaskShouldYieldMode::testRatio);
  task->taskTestYieldRatioIs(0);
  EXPECT_EQ(task->taskShouldYieldMode(), TestTask::TaskShouldYieldMode::steadyClock);
  EXPECT_THAT(failureOf([&] { task->taskShouldYield(); }),
              HasSubstr("taskCurrentlyRunning: false taskRunCount: 6"));
}

TEST_F(TaskTest, QuantaPassInVirtualTimeWhileTheRootFollowsIt) {
  std::vector<bool> yields;
  const auto task = make("t", TaskPriority::normal, [&](TestTask& self) {
    for (const double step : {0.0, 0.0199, 0.0002}) {
      Platform::fastForwardBy(step);
      yields.push_back(self.taskShouldYield());
    }
  });
  task->taskQuantumIs(std::chrono::milliseconds(20));
  Platform::setFastForward(true);
  task->scheduleTask();
  runLoop();
  EXPECT_THAT(yields, ElementsAre(false, false, true));
  EXPECT_TRUE(root->virtualTime());
  EXPECT_LT(task->getStats().taskRunTimeHighWaterMark(), 20'000'000) << "runs are real";
  EXPECT_THAT(events(), testing::Contains("schedulerVirtualTimeOn root"));
  root->followFastForwardIs(false);
  task->scheduleTask();
  runLoop();
  EXPECT_FALSE(root->virtualTime());
  yields.clear();
  task->taskQuantumIs(1'000'000'000);
  task->body = [&](TestTask& self) {  // its run begins when the time does
    Platform::fastForwardBy(1);
    root->virtualTimeIs(true);
    yields.push_back(self.taskShouldYield());
    Platform::fastForwardBy(1);
    yields.push_back(self.taskShouldYield());
  };
  task->scheduleTask();
  runLoop();
  EXPECT_THAT(yields, ElementsAre(false, true));
  EXPECT_THAT(failureOf([&] { task->taskCurrentRunTime(); }),
              HasSubstr("Task: N t not currently running"));
}

TEST_F(TaskTest, QuantumHasLimitsAndCountsItsViolations) {
  const auto task = make("t");
  EXPECT_THAT(failureOf([&] { task->taskQuantumIs(1'000'000'001); }),
              HasSubstr("Quantum: 1000000001"));
  EXPECT_THAT(failureOf([&] { task->taskQuantumNoCheckIs(0); }), HasSubstr("Quantum: 0"));
  EXPECT_EQ(task->taskQuantum(), 20'000'000);
  task->taskQuantumIs(1'000'000'000);
  task->taskRunFromTest();
  task->taskQuantumNoCheckIs(LLONG_MAX);
  task->taskRunFromTest();
  EXPECT_EQ(task->getStats().taskQuantumViolation500(), 0U);
  testsupport::TestClock clock;
  task->taskQuantumIs(1'000'000);
  for (const auto& [run, violations200, violations500] :
       {std::tuple{0.001999999, 0U, 0U}, {0.002, 1U, 0U}, {0.004999999, 2U, 0U}, {0.005, 2U, 1U}}) {
    task->body = [&, length = run](TestTask&) { clock.advance(length); };
    task->taskRunFromTest();
    EXPECT_EQ(task->getStats().taskQuantumViolation200(), violations200) << run;
    EXPECT_EQ(task->getStats().taskQuantumViolation500(), violations500) << run;
  }
  EXPECT_EQ(task->getStats().taskRunTimeHighWaterMark(), 5'000'000);
  task->resetStats();
  EXPECT_EQ(task->getStats().taskQuantumViolation500(), 0U);
}

TEST_F(TaskTest, WorkReportsAverageAndSaturateTheirMarks) {
  const auto task = make("t");
  task->taskWorkCountInc(7);
  EXPECT_EQ(task->taskWorkCountDecayAvg(), 7.0F);
  task->taskWorkCountInc(17);
  EXPECT_EQ(task->taskWorkCountDecayAvg(), 8.0F);
  EXPECT_EQ(task->taskWorkCountHighWaterMark(), 17U);
  task->taskWorkCountInc(1ULL << 40);
  EXPECT_EQ(task->taskWorkCountHighWaterMark(), 0xFFFFFFFEU);
  EXPECT_EQ(task->taskWorkCountTotal(), (1ULL << 40) + 24);
  EXPECT_EQ(task->taskWorkPendingHighWaterMark(), Tarvo::TaskStat::noMark);
  task->taskWorkPendingIs(0);
  EXPECT_EQ(task->taskWorkPendingHighWaterMark(), 0U);
  task->taskWorkPendingIs(0xFFFFFFFF);
  EXPECT_EQ(task->taskWorkPendingHighWaterMark(), 0xFFFFFFFEU);
}

TEST_F(TaskTest, FiguresOfFinishedTasksAreKeptByStatisticsName) {
  for (const char* name : {"c0", "c1", "c2"}) {
    const auto task = make(name, TaskPriority::low);
    task->taskStatsNameIs("connection");
    task->taskRunFromTest();
    EXPECT_EQ(root->taskForTest(name), task.get());
    EXPECT_EQ(root->taskStatForTest(name)->taskName(), "connection");
  }
  // Overrides, and calls with either kind of text, that take the name by value.
  struct Renaming : Tarvo::TimerTask {
    using TimerTask::TimerTask;
    void taskExecute() override {}
    void taskStatsNameIs(std::string name) override { TimerTask::taskStatsNameIs(name + "!"); }
  };
  const std::string statsName = "r";
  Renaming renaming(root, TaskPriority::low, statsName);
  renaming.taskStatsNameIs("r");
  renaming.taskStatsNameIs(renaming.taskStatsName());
  EXPECT_EQ(renaming.taskStatsName(), "r!!");
  make("hidden")->includeInCompletedTaskIs(false);
  EXPECT_EQ(root->completedTaskStatForTest("connection")->taskCompletedCount(), 3U);
  EXPECT_EQ(root->completedTaskStatForTest("connection")->taskRunCount(), 3U);
  EXPECT_EQ(root->completedTasksPerPriority(TaskPriority::low), 1U);
  EXPECT_EQ(root->completedTaskStatForTest("hidden"), std::nullopt);
  EXPECT_EQ(root->taskForTest("c0"), nullptr);
  make("connection", TaskPriority::high);
  EXPECT_EQ(root->completedTaskStatForTest("connection")->taskCompletedCount(), 1U);
  EXPECT_EQ(root->completedTasksPerPriority(TaskPriority::low), 1U);
  EXPECT_EQ(root->completedTasksPerPriority(TaskPriority::high), 1U);
}

TEST_F(TaskTest, TheFiguresOfTooManyNamesAreSummedUp) {
  const auto count = [&](const char* name) {
    const auto stat = root->completedTaskStatForTest(name);
    return stat ? stat->taskCompletedCount() : 0;
  };
  EXPECT_EQ(root->completedTaskRecordsMax(), 10'000U);
  root->completedTaskRecordsMaxIs(3);
  for (const char* name : {"a", "b", "b", "c", "d", "e", "b", "a"}) make(name)->taskRunFromTest();
  make("f", TaskPriority::low);
  const auto counts = [&] {
    return std::vector{count("a"), count("b"), count("c"), count("d"), count("(others)")};
  };
  EXPECT_THAT(counts(), ElementsAre(2, 3, 1, 0, 1)) << "of which priority nobody says";
  EXPECT_EQ(root->completedTasksPerPriority(TaskPriority::normal), 4U);
  EXPECT_EQ(root->completedTasksPerPriority(TaskPriority::low), 1U);
  const auto group = std::make_shared<Tarvo::TaskGroup>("g", TaskPriority::low, false, root);
  EXPECT_EQ(group->completedTaskRecordsMax(), 3U);
  root->resetStats();
  for (const char* name : {"a", "b", "b", "c", "d"}) make(name)->taskRunFromTest();
  root->completedTaskRecordsMaxIs(1);
  EXPECT_THAT(counts(), ElementsAre(1, 0, 0, 0, 4));
  EXPECT_EQ(root->completedTaskStatForTest("(others)")->taskRunCount(), 4U);
  EXPECT_EQ(root->completedTasksPerPriority(TaskPriority::normal), 2U);
  root->completedTaskRecordsMaxIs(2);
  make("d");
  make("e");
  EXPECT_THAT(counts(), ElementsAre(1, 0, 0, 1, 5)) << "there is room again";
}

TEST_F(TaskTest, ADestroyedTaskAndAMissingSchedulerAreRecognised) {
  const auto task = make("t", TaskPriority::normal, [](TestTask& self) {
    self.handleDestroy();
    self.handleDestroy();
  });
  task->scheduleTask();
  EXPECT_THAT(failureOf([&] { runLoop(); }), HasSubstr("Task: N t taskMagicNumber: 3735936685 "
                                                       "taskMagicNumberConstructed: 1119771390"));
  runLoop();
  EXPECT_EQ(root->totalRegisteredTaskCount(), 0U);
  EXPECT_THAT(failureOf([&] { task->scheduleTask(); }),
              HasSubstr("N t is scheduled after its end"));
  task->taskTestYieldRatioIs(2);
  EXPECT_THAT(failureOf([&] { TestTask(nullptr, TaskPriority::low, "t", log); }),
              HasSubstr("Need a TaskScheduler"));
}

}  // namespace
