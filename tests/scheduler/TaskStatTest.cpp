#include <gmock/gmock.h>

#include <cmath>
#include <limits>

#include "Tarvo/TaskStat.h"
#include "support/Failure.h"

namespace {

using Tarvo::ConstStringCache;
using Tarvo::ConstStringRef;
using Tarvo::TaskKey;
using Tarvo::TaskPriority;
using Tarvo::TaskStat;
using testing::HasSubstr;
using testsupport::failureOf;

TEST(TaskStat, StatusStringTellsTheMostImportantThing) {
  TaskStat stat({}, TaskKey(7), TaskPriority::normal, 0, 0);
  TaskStat::TaskStatus status;
  const auto shown = [&] {
    stat.taskStatusIs(status);
    return stat.taskStatusString();
  };
  EXPECT_EQ(shown(), " n");
  status.taskOnRunQueueIs(true);
  EXPECT_EQ(shown(), " N");
  status.taskTimerIs(true);
  EXPECT_EQ(shown(), "tN");
  status.taskTimerRunningIs(true);
  EXPECT_EQ(shown(), "TN");
  status.taskSuspendedIs(true);
  EXPECT_EQ(shown(), "SN");
  status.taskCurrentlyRunningIs(true);
  status.taskOnRunQueueIs(false);
  EXPECT_EQ(shown(), "*n");
  EXPECT_THAT(failureOf([&] { subSchedulerKey(stat); }), HasSubstr(" is not TaskGroup"));
}

TEST(TaskStat, MergingAddsCountsRaisesMarksAndTakesOverTheMoment) {
  ConstStringCache names;
  const ConstStringRef name(names, "poll");
  TaskStat sum(name, TaskKey(1), TaskPriority::low, 3, 100, 10, 5.0F, 6, 4, TaskStat::noMark, 1, 2,
               60, 8, 9, 1);
  TaskStat finished(name, TaskKey(2), TaskPriority::low, 2, 50, 7, 3.5F, TaskStat::noMark, 1,
                    TaskStat::noMark - 1, 10, 20, 40, 3, 11, 17);
  TaskStat::TaskStatus suspended;
  suspended.taskSuspendedIs(true);
  finished.taskStatusIs(suspended);
  sum += finished;
  EXPECT_EQ(sum.taskRunCount(), 5U);
  EXPECT_EQ(sum.taskTotalRunTime(), 150);
  EXPECT_EQ(sum.taskWorkCountTotal(), 17U);
  EXPECT_EQ(sum.taskWorkCountDecayAvg(), 3.5F);
  EXPECT_EQ(sum.taskWorkPending(), 1U);
  EXPECT_EQ(sum.taskWorkCountHighWaterMark(), 6U) << "an absent mark never wins";
  EXPECT_EQ(sum.taskWorkPendingHighWaterMark(), TaskStat::noMark - 1);
  EXPECT_EQ(sum.taskQuantumViolation500(), 11U);
  EXPECT_EQ(sum.taskQuantumViolation200(), 22U);
  EXPECT_EQ(sum.taskRunTimeHighWaterMark(), 60);
  EXPECT_EQ(sum.taskLastSchedulingLatency(), 3);
  EXPECT_EQ(sum.taskSchedulingLatencyHighWaterMark(), 11);
  EXPECT_EQ(sum.taskCompletedCount(), 2U) << "one more, whatever the other's count";
  EXPECT_TRUE(sum.taskStatus().taskSuspended());

  TaskStat other({names, "accept"}, TaskKey(3), TaskPriority::low, 0, 0);
  EXPECT_THAT(failureOf([&] { sum += other; }), HasSubstr("poll != accept"));
}

TEST(Time2Duration, TruncatesSaturatesAndRefusesTheNegative) {
  EXPECT_EQ(Tarvo::time2Duration(1.9999999999), 1'999'999'999);
  EXPECT_EQ(Tarvo::time2Duration(std::numeric_limits<double>::infinity()), Tarvo::taskTimeNever);
  EXPECT_EQ(Tarvo::time2Duration(9.3e9), Tarvo::taskTimeNever);
  for (const double bad : {-1e-9, std::nan("")}) {
    EXPECT_THAT(failureOf([&] { Tarvo::time2Duration(bad); }),
                HasSubstr("t >= 0 && \"time2Duration() negative Time input\""));
  }
}

}  // namespace
