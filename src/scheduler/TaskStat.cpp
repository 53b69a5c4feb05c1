#include "Tarvo/TaskStat.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <ostream>
#include <string_view>

#include "Tarvo/Assert.h"
#include "scheduler/WorkMark.h"

namespace Tarvo {

namespace {

constexpr std::array<const char*, TaskPriority::oneBeyondLast + 1> priorityNames = {
    "absolute", "high", "normal", "low", "scavenge", "oneBeyondLast"};
constexpr std::string_view priorityLetters = "AHNLS-";

}  // namespace

TaskTimeDuration time2Duration(Time t) {
  TARVO_ASSERT(t >= 0, "t >= 0 && \"time2Duration() negative Time input\"");
  const double exact = t * 1e9;
  // The largest duration, 2^63 - 1, is not representable as a double; 2^63 is.
  return exact < std::ldexp(1.0, 63) ? static_cast<TaskTimeDuration>(exact) : taskTimeNever;
}

String TaskPriority::toStrep() const {
  TARVO_ASSERT(value_ < priorityNames.size(), "unexpected priority value {}", unsigned{value_});
  return priorityNames[value_];
}

char TaskPriority::oneChar() const {
  TARVO_ASSERT(value_ < priorityLetters.size(), "unexpected priority {}", unsigned{value_});
  return priorityLetters[value_];
}

String TaskPriority::oneCharString() const { return String(1, oneChar()); }

std::ostream& operator<<(std::ostream& out, TaskPriority priority) {
  return out << priority.toStrep();
}

String TaskKey::toStrep() const { return fmt::format("@{}", number_); }

std::ostream& operator<<(std::ostream& out, TaskKey key) { return out << key.toStrep(); }

TaskStat::TaskStat() {
  figures_.workCountHighWaterMark = 0;
  figures_.workPendingHighWaterMark = 0;
}

TaskStat::TaskStat(ConstStringRef taskName, TaskKey taskKey, TaskPriority taskPriority,
                   const Impl::TaskFigures& figures)
    : taskName_(std::move(taskName)),
      taskKey_(taskKey),
      taskPriority_(taskPriority),
      figures_(figures) {}

TaskStat::TaskStat(ConstStringRef taskName, TaskKey taskKey, TaskPriority taskPriority,
                   unsigned int taskRunCount, TaskTimeDuration taskTotalRunTime,
                   unsigned long long taskWorkCountTotal, float taskWorkCountDecayAvg,
                   unsigned int taskWorkCountHighWaterMark, unsigned int taskWorkPending,
                   unsigned int taskWorkPendingHighWaterMark, unsigned int taskQuantumViolation500,
                   unsigned int taskQuantumViolation200, TaskTimeDuration taskRunTimeHighWaterMark,
                   TaskTimeDuration taskLastSchedulingLatency,
                   TaskTimeDuration taskSchedulingLatencyHighWaterMark,
                   unsigned int taskCompletedCount, unsigned int taskThrewCount)
    : TaskStat(std::move(taskName), taskKey, taskPriority,
               {.lastSchedulingLatency = taskLastSchedulingLatency,
                .schedulingLatencyHighWaterMark = taskSchedulingLatencyHighWaterMark,
                .totalRunTime = taskTotalRunTime,
                .runTimeHighWaterMark = taskRunTimeHighWaterMark,
                .workCountTotal = taskWorkCountTotal,
                .workCountDecayAvg = taskWorkCountDecayAvg,
                .workCountHighWaterMark = taskWorkCountHighWaterMark,
                .workPending = taskWorkPending,
                .workPendingHighWaterMark = taskWorkPendingHighWaterMark,
                .quantumViolation500 = taskQuantumViolation500,
                .quantumViolation200 = taskQuantumViolation200,
                .runCount = taskRunCount,
                .threwCount = taskThrewCount}) {
  taskCompletedCount_ = taskCompletedCount;
}

TaskStat& TaskStat::operator+=(const TaskStat& finished) {
  TARVO_ASSERT(taskName() == finished.taskName(), "{} != {}", taskName(), finished.taskName());
  const Impl::TaskFigures& added = finished.figures_;
  figures_.runCount += added.runCount;
  figures_.threwCount += added.threwCount;
  figures_.totalRunTime += added.totalRunTime;
  figures_.runTimeHighWaterMark =
      std::max(figures_.runTimeHighWaterMark, added.runTimeHighWaterMark);
  figures_.quantumViolation500 += added.quantumViolation500;
  figures_.quantumViolation200 += added.quantumViolation200;
  figures_.lastSchedulingLatency = added.lastSchedulingLatency;
  figures_.schedulingLatencyHighWaterMark =
      std::max(figures_.schedulingLatencyHighWaterMark, added.schedulingLatencyHighWaterMark);
  figures_.workCountTotal += added.workCountTotal;
  figures_.workCountDecayAvg = added.workCountDecayAvg;
  Impl::mergeMark(figures_.workCountHighWaterMark, added.workCountHighWaterMark);
  figures_.workPending = added.workPending;
  Impl::mergeMark(figures_.workPendingHighWaterMark, added.workPendingHighWaterMark);
  ++taskCompletedCount_;
  taskStatus_ = finished.taskStatus_;
  return *this;
}

String TaskStat::taskStatusString() const {
  char state = ' ';
  if (taskStatus_.taskCurrentlyRunning()) {
    state = '*';
  } else if (taskStatus_.taskSuspended()) {
    state = 'S';
  } else if (taskStatus_.taskTimer()) {
    state = taskStatus_.taskTimerRunning() ? 'T' : 't';
  }
  char letter = taskPriority_.oneChar();
  if (!taskStatus_.taskOnRunQueue() && letter != '-') letter = static_cast<char>(letter | 0x20);
  return {state, letter};
}

String subSchedulerKey(const TaskStat& parentTask) {
  TARVO_ASSERT(parentTask.taskStatus().taskIsTaskGroup(), "{} is not TaskGroup",
               parentTask.taskName());
  return fmt::format("{}-{}", parentTask.taskName(), parentTask.taskKey().toStrep());
}

TaskSchedulerPriorityStats& TaskSchedulerPriorityStats::operator+=(
    const TaskSchedulerPriorityStats& other) {
  TARVO_ASSERT(priority_ == other.priority_, "{} != {}", priority_, other.priority_);
  runnable_ += other.runnable_;
  notRunnable_ += other.notRunnable_;
  completed_ += other.completed_;
  runCount_ += other.runCount_;
  return *this;
}

TaskSchedulerQueueStats& TaskSchedulerQueueStats::operator+=(const TaskSchedulerQueueStats& other) {
  for (const auto& [priority, stats] : other) {
    const auto [mine, isNew] = try_emplace(priority, stats);
    if (!isNew) mine->second += stats;
  }
  return *this;
}

}  // namespace Tarvo
