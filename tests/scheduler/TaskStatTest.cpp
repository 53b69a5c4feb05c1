#include "Tarvo/TaskStat.h"

#include "support/Test.h"

namespace {

using Tarvo::TaskKey;
using Tarvo::TaskPriority;
using Tarvo::TaskStat;
using testing::HasSubstr;
using testsupport::failureOf;

TEST(TaskStat, MergingAddsCountsRaisesMarksAndTakesOverTheMoment) {
  Tarvo::ConstStringCache names;
  const Tarvo::ConstStringRef name(names, "poll");
  TaskStat sum(name, TaskKey(1), TaskPriority::low, 3, 100, 10, 5.0F, 6, 4, TaskStat::noMark, 1, 2,
               60, 8, 9, 1);
  sum += TaskStat(name, TaskKey(2), TaskPriority::low, 2, 50, 7, 3.5F, TaskStat::noMark, 1,
                  TaskStat::noMark - 1, 10, 20, 40, 3, 11, 17);
  EXPECT_EQ(sum.taskTotalRunTime(), 150);
  EXPECT_EQ(sum.taskWorkCountTotal(), 17U);
  EXPECT_EQ(sum.taskWorkCountDecayAvg(), 3.5F);
  EXPECT_EQ(sum.taskWorkCountHighWaterMark(), 6U) << "an absent mark never wins";
  EXPECT_EQ(sum.taskQuantumViolation200(), 22U);
  EXPECT_EQ(sum.taskRunTimeHighWaterMark(), 60);
  EXPECT_EQ(sum.taskCompletedCount(), 2U) << "one more, whatever the other's count";
  const TaskStat other({names, "accept"}, TaskKey(3), TaskPriority::low, 0, 0);
  EXPECT_THAT(failureOf([&] { sum += other; }), HasSubstr("poll != accept"));
}

TEST(Time2Duration, TruncatesSaturatesAndRefusesTheNegative) {
  EXPECT_EQ(Tarvo::time2Duration(1.9999999999), 1'999'999'999);
  EXPECT_EQ(Tarvo::time2Duration(HUGE_VAL), Tarvo::taskTimeNever);
  EXPECT_EQ(Tarvo::time2Duration(9.3e9), Tarvo::taskTimeNever);
  for (const double bad : {-1e-9, std::nan("")}) {
    EXPECT_THAT(failureOf([&] { Tarvo::time2Duration(bad); }), HasSubstr("negative Time input"));
  }
}

}  // namespace
