#include "Tarvo/TaskControl.h"
#include "support/SchedulerFixture.h"

namespace {

using namespace testsupport;

struct TaskTest : SchedulerFixture {
  void run(TestTask& task) {
    task.scheduleTask();
    runLoop();
  }
  unsigned completed(const std::string& name) const {
    const auto stat = root->completedTaskStatForTest(name);
    return stat ? stat->taskCompletedCount() : 0;
  }
};

TEST_F(TaskTest, LeavesATrailFromCreationToDeletion) {
  {
    const auto task = make("t");
    task->scheduleTask();
    task->unscheduleTask();
    run(*task);
    root->clearHistory();
    task->taskSuspendedIs(true);
    task->scheduleTask();
    EXPECT_FALSE(task->taskScheduled());
    task->taskSuspendedIs(false);
    EXPECT_TRUE(task->taskScheduled());
    task->taskSuspendedIs(true);
    runLoop();
  }
  EXPECT_THAT(log, ElementsAre("t"));
  EXPECT_THAT(events(), ElementsAre("suspendOn t", "scheduleSus t", "suspendOff t", "schedule t",
                                    "schedulerRunnable root", "busy t", "suspendOn t",
                                    "unschedule t", "idle t", "schedulerIdle root", "delete t"));
}

TEST_F(TaskTest, TestRatioCountsOverRunsAndWrapsAt256) {
  std::vector<int> yields;
  int asked = 0;
  const auto task = make("t", TaskPriority::normal, [&](TestTask& self) {
    for (int i = 0; i < 100; ++i) {
      if (++asked; self.taskShouldYield()) yields.push_back(asked);
    }
  });
  root->taskTestYieldRatioIs(60);
  for (int i = 0; i < 4; ++i) task->taskRunFromTest();
  EXPECT_THAT(yields, ElementsAre(60, 120, 180, 240, 256, 316, 376))
      << "0 is a multiple of everything";
  EXPECT_THAT(failureOf([&] { task->taskShouldYield(); }),
              HasSubstr("taskCurrentlyRunning: false taskRunCount: 4"));
}

TEST_F(TaskTest, QuantaPassInVirtualTimeWhileTheRootFollowsIt) {
  std::vector<bool> yields;
  const auto task = make("t", TaskPriority::normal, [&](TestTask& self) {
    for (const double step : {0.0, 0.01, 0.0101}) {
      Platform::fastForwardBy(step);
      yields.push_back(self.taskShouldYield());
    }
  });
  Platform::setFastForward(true);
  run(*task);
  EXPECT_LT(task->getStats().taskRunTimeHighWaterMark(), 20'000'000) << "runs are real";
  root->followFastForwardIs(false);
  run(*task);
  EXPECT_THAT(yields, ElementsAre(false, false, true, false, false, false));
  task->body = [&](TestTask& self) {
    Platform::fastForwardBy(10);
    EXPECT_LT(self.taskCurrentRunTime(), 1'000'000'000);
    root->virtualTimeIs(true);  // and counts from here
    EXPECT_FALSE(self.taskShouldYield());
    Platform::fastForwardBy(1);
    EXPECT_GE(self.taskCurrentRunTime(), 999'999'000);
  };
  task->taskRunFromTest();
}

TEST_F(TaskTest, HandlersOfTheLoopAreRunByTasks) {
  const SocketPair pair;
  Handler handler(log, "h");
  const auto timer = Platform::getTimerControl(&handler, root, TaskPriority::low, "timer");
  const auto callback =
      Platform::getCallbackControl(&handler, root, TaskPriority::high, "callback");
  const auto descriptor = Platform::getFdControl(&handler, root, TaskPriority::normal, "fd");
  descriptor->setFd(pair.ends[0]);
  descriptor->setWrites(true);
  timer->setTimeout(0);
  callback->requestCallback();
  runTurns(5);
  EXPECT_THAT(log,
              testing::UnorderedElementsAre("h", "h", "h write " + std::to_string(pair.ends[0])));
  for (const char* name : {"timer", "callback", "fd:write"}) {
    EXPECT_EQ(root->taskForTest(name)->taskRunCount(), 1U) << name;
  }
  descriptor->clearEvents();
  EXPECT_EQ(descriptor->getFd(), -1);
}

TEST_F(TaskTest, QuantumHasLimitsAndCountsItsViolations) {
  const auto task = make("t");
  EXPECT_THAT(failureOf([&] { task->taskQuantumIs(1'000'000'001); }),
              HasSubstr("Quantum: 1000000001"));
  EXPECT_THAT(failureOf([&] { task->taskQuantumNoCheckIs(0); }), HasSubstr("Quantum: 0"));
  task->taskQuantumNoCheckIs(LLONG_MAX);
  task->taskRunFromTest();
  const TestClock clock;
  task->taskQuantumIs(1'000'000);
  std::vector<unsigned> violations;
  for (const double length : {0.001999999, 0.002, 0.004999999, 0.005}) {
    task->body = [=](TestTask&) { TestClock::advance(length); };
    task->taskRunFromTest();
    violations.push_back(task->getStats().taskQuantumViolation200());
    violations.push_back(task->getStats().taskQuantumViolation500());
  }
  EXPECT_THAT(violations, ElementsAre(0, 0, 1, 0, 2, 0, 2, 1));
  EXPECT_EQ(task->getStats().taskRunTimeHighWaterMark(), 5'000'000);
}

TEST_F(TaskTest, WorkReportsAverageAndSaturateTheirMarks) {
  const auto task = make("t");
  for (const std::uint64_t count : {7ULL, 17ULL}) task->taskWorkCountInc(count);
  EXPECT_EQ(task->taskWorkCountDecayAvg(), 8.0F);
  task->taskWorkCountInc(1ULL << 40);
  EXPECT_EQ(task->taskWorkCountHighWaterMark(), 0xFFFFFFFEU);
  EXPECT_EQ(task->taskWorkCountTotal(), (1ULL << 40) + 24);
}

TEST_F(TaskTest, FiguresOfFinishedTasksAreKeptByStatisticsNameAndPriority) {
  for (const char* name : {"c0", "c1", "c2"}) {
    const auto task = make(name, TaskPriority::low);
    task->taskStatsNameIs("connection");
    task->taskRunFromTest();
    EXPECT_EQ(root->taskForTest(name), task.get());
  }
  EXPECT_EQ(completed("connection"), 3U);
  EXPECT_EQ(root->completedTaskStatForTest("connection")->taskRunCount(), 3U);
  EXPECT_EQ(root->taskForTest("c0"), nullptr);
  make("connection", TaskPriority::high);
  EXPECT_EQ(completed("connection"), 1U);
  EXPECT_EQ(root->completedTasksPerPriority(TaskPriority::low), 1U);
}

TEST_F(TaskTest, TheFiguresOfTooManyNamesAreSummedUp) {
  const auto end = [&](const std::string& names) {
    for (const char name : names) make(std::string(1, name))->taskRunFromTest();
    return std::vector{completed("a"), completed("b"), completed("c"), completed("d"),
                       completed("(others)")};
  };
  root->completedTaskRecordsMaxIs(3);
  EXPECT_THAT(end("abbcdeba"), ElementsAre(2, 3, 1, 0, 2));
  EXPECT_EQ(root->completedTasksPerPriority(TaskPriority::normal), 4U);
  root->completedTaskRecordsMaxIs(1);
  EXPECT_THAT(end(""), ElementsAre(2, 0, 0, 0, 6));
  EXPECT_EQ(root->completedTaskStatForTest("(others)")->taskRunCount(), 6U);
  root->completedTaskRecordsMaxIs(2);
  EXPECT_THAT(end("de"), ElementsAre(2, 0, 0, 1, 7)) << "there is room again";
}

TEST_F(TaskTest, ADestroyedTaskAndAMissingSchedulerAreRecognised) {
  const auto task = make("t", TaskPriority::normal, [](TestTask& self) {
    self.handleDestroy();
    self.handleDestroy();
  });
  EXPECT_THAT(failureOf([&] { run(*task); }), HasSubstr("Task: N t taskMagicNumber: 3735936685 "
                                                        "taskMagicNumberConstructed: 1119771390"));
  runLoop();
  EXPECT_EQ(root->totalRegisteredTaskCount(), 0U);
  EXPECT_THAT(failureOf([&] { task->scheduleTask(); }),
              HasSubstr("N t is scheduled after its end"));
  EXPECT_THAT(failureOf([&] { TestTask(nullptr, TaskPriority::low, "t", log); }),
              HasSubstr("Need a TaskScheduler"));
}

}  // namespace
