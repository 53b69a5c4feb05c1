#ifndef TARVO_DETAIL_TASKFIGURES_H
#define TARVO_DETAIL_TASKFIGURES_H

#include "Tarvo/TaskTime.h"

namespace Tarvo::Impl {

/// The figures that a task counts and that a TaskStat copies. TaskStat.h explains each.
struct TaskFigures {
  /// The mark of work counts that were never reported.
  static constexpr unsigned int noMark = 0xFFFFFFFF;

  TaskTimeDuration lastSchedulingLatency = 0;
  TaskTimeDuration schedulingLatencyHighWaterMark = 0;
  TaskTimeDuration totalRunTime = 0;
  TaskTimeDuration runTimeHighWaterMark = 0;
  unsigned long long workCountTotal = 0;
  float workCountDecayAvg = 0;
  unsigned int workCountHighWaterMark = noMark;
  unsigned int workPending = 0;
  unsigned int workPendingHighWaterMark = noMark;
  unsigned int quantumViolation500 = 0;
  unsigned int quantumViolation200 = 0;
  unsigned int runCount = 0;
  unsigned int threwCount = 0;
};

}  // namespace Tarvo::Impl

#endif
