#ifndef TARVO_TASKSTAT_H
#define TARVO_TASKSTAT_H

/// Plain values that describe tasks: priority, key, status and figures.
///
/// A TaskStat is a copy of one task's figures at one moment, or the sum over the finished tasks of
/// one name. Durations are nanoseconds of the steady clock. Names are interned in the cache of the
/// thread's root scheduler: a TaskStat must not outlive that root, nor leave its thread.

#include <cstdint>
#include <iosfwd>
#include <map>

#include "Tarvo/ConstString.h"
#include "Tarvo/Export.h"
#include "Tarvo/String.h"
#include "Tarvo/TaskTime.h"
#include "Tarvo/detail/TaskFigures.h"

namespace Tarvo {

/// How urgent a task is; a lower value is more urgent.
class TARVO_EXPORT TaskPriority {
 public:
  enum Value : std::uint8_t {
    absolute = 0,  // never delayed for anything less urgent
    high = 1,
    normal = 2,
    low = 3,
    scavenge = 4,       // runs only when nothing else is runnable
    oneBeyondLast = 5,  // no priority: ends iterations and sizes arrays
  };

  constexpr TaskPriority(Value value = absolute) : value_(value) {}
  constexpr explicit TaskPriority(std::uint8_t number) : value_(static_cast<Value>(number)) {}
  constexpr operator Value() const { return value_; }

  /// The name of the value. Fails an assertion when it is above oneBeyondLast.
  String toStrep() const;
  /// The letter of the value, one of "AHNLS-". Fails as toStrep() does.
  char oneChar() const;
  String oneCharString() const;

 private:
  Value value_;
};

TARVO_EXPORT std::ostream& operator<<(std::ostream& out, TaskPriority priority);
inline std::ostream& operator<<(std::ostream& out, TaskPriority::Value priority) {
  return out << TaskPriority(priority);
}

/// Identifies a task of a root: no two of its tasks ever have the same key.
class TARVO_EXPORT TaskKey {
 public:
  constexpr TaskKey() = default;
  constexpr explicit TaskKey(std::uint64_t number) : number_(number) {}

  /// "@" and the number.
  String toStrep() const;
  std::uint64_t number() const { return number_; }
  auto operator<=>(const TaskKey&) const = default;

 private:
  std::uint64_t number_ = 0;
};

TARVO_EXPORT std::ostream& operator<<(std::ostream& out, TaskKey key);

class TARVO_EXPORT TaskStat {
 public:
  /// The mark of work counts that were never reported.
  static constexpr unsigned int noMark = Impl::TaskFigures::noMark;

  /// The kind and the state of a task at one moment, as a set of bits.
  class TARVO_EXPORT TaskStatus {
   public:
    enum Mask : std::uint8_t {
      timerMask = 0x01,
      timerRunningMask = 0x02,
      onRunQueueMask = 0x04,
      currentlyRunningMask = 0x08,
      suspendedMask = 0x10,
      isTaskGroupMask = 0x20,
    };

    bool bitmaskHasBitSet(std::uint8_t mask) const { return (bits_ & mask) != 0; }
    void bitmaskSetBit(std::uint8_t mask, bool on) {
      bits_ = static_cast<std::uint8_t>(on ? bits_ | mask : bits_ & ~mask);
    }

    /// The task is a timer task.
    bool taskTimer() const { return bitmaskHasBitSet(timerMask); }
    void taskTimerIs(bool on) { bitmaskSetBit(timerMask, on); }
    /// Its timer is armed.
    bool taskTimerRunning() const { return bitmaskHasBitSet(timerRunningMask); }
    void taskTimerRunningIs(bool on) { bitmaskSetBit(timerRunningMask, on); }
    bool taskOnRunQueue() const { return bitmaskHasBitSet(onRunQueueMask); }
    void taskOnRunQueueIs(bool on) { bitmaskSetBit(onRunQueueMask, on); }
    /// The task's body is executing.
    bool taskCurrentlyRunning() const { return bitmaskHasBitSet(currentlyRunningMask); }
    void taskCurrentlyRunningIs(bool on) { bitmaskSetBit(currentlyRunningMask, on); }
    bool taskSuspended() const { return bitmaskHasBitSet(suspendedMask); }
    void taskSuspendedIs(bool on) { bitmaskSetBit(suspendedMask, on); }
    /// The task is the parent task of a task group.
    bool taskIsTaskGroup() const { return bitmaskHasBitSet(isTaskGroupMask); }
    void taskIsTaskGroupIs(bool on) { bitmaskSetBit(isTaskGroupMask, on); }

   private:
    std::uint8_t bits_ = 0;
  };

  /// All zero, the marks too.
  TaskStat();
  TaskStat(ConstStringRef taskName, TaskKey taskKey, TaskPriority taskPriority,
           unsigned int taskRunCount, TaskTimeDuration taskTotalRunTime,
           unsigned long long taskWorkCountTotal = 0, float taskWorkCountDecayAvg = 0,
           unsigned int taskWorkCountHighWaterMark = noMark, unsigned int taskWorkPending = 0,
           unsigned int taskWorkPendingHighWaterMark = noMark,
           unsigned int taskQuantumViolation500 = 0, unsigned int taskQuantumViolation200 = 0,
           TaskTimeDuration taskRunTimeHighWaterMark = 0,
           TaskTimeDuration taskLastSchedulingLatency = 0,
           TaskTimeDuration taskSchedulingLatencyHighWaterMark = 0,
           unsigned int taskCompletedCount = 0, unsigned int taskThrewCount = 0);

  /// Adds the figures of a finished task of the same name: counts and times are added, marks become
  /// the maximum, momentary values are replaced, and the completed count grows by one. Fails an
  /// assertion when the names differ.
  TaskStat& operator+=(const TaskStat& finished);

  /// Two characters: "*" running, else "S" suspended, else "T" or "t" a timer task whose timer is
  /// armed or not, else a blank; then the letter of the priority, in upper case while the task is
  /// on a run queue.
  String taskStatusString() const;

  /// The task's statistics name.
  const String& taskName() const { return taskName_.text(); }
  const ConstStringRef& taskNameRef() const { return taskName_; }
  void taskNameIs(ConstStringRef name) { taskName_ = std::move(name); }
  TaskKey taskKey() const { return taskKey_; }
  TaskPriority taskPriority() const { return taskPriority_; }
  TaskStatus taskStatus() const { return taskStatus_; }
  void taskStatusIs(TaskStatus status) { taskStatus_ = status; }

  unsigned int taskRunCount() const { return figures_.runCount; }
  void taskRunInc(unsigned int n) { figures_.runCount += n; }
  TaskTimeDuration taskTotalRunTime() const { return figures_.totalRunTime; }
  void taskTotalRunTimeInc(TaskTimeDuration duration) { figures_.totalRunTime += duration; }
  /// The longest single run.
  TaskTimeDuration taskRunTimeHighWaterMark() const { return figures_.runTimeHighWaterMark; }
  void taskRunTimeHighWaterMarkIs(TaskTimeDuration mark) { figures_.runTimeHighWaterMark = mark; }

  /// The work that the task reported: the total, a decaying average of the reports, and the largest
  /// report, or noMark.
  unsigned long long taskWorkCountTotal() const { return figures_.workCountTotal; }
  void taskWorkCountTotalInc(unsigned long long n) { figures_.workCountTotal += n; }
  float taskWorkCountDecayAvg() const { return figures_.workCountDecayAvg; }
  unsigned int taskWorkCountHighWaterMark() const { return figures_.workCountHighWaterMark; }
  /// The backlog that the task reported last, and the largest one, or noMark.
  unsigned int taskWorkPending() const { return figures_.workPending; }
  unsigned int taskWorkPendingHighWaterMark() const { return figures_.workPendingHighWaterMark; }

  /// Runs of at least five times the quantum.
  unsigned int taskQuantumViolation500() const { return figures_.quantumViolation500; }
  void taskQuantumViolation500Inc(unsigned int n) { figures_.quantumViolation500 += n; }
  /// Runs of at least twice, but less than five times the quantum.
  unsigned int taskQuantumViolation200() const { return figures_.quantumViolation200; }
  void taskQuantumViolation200Inc(unsigned int n) { figures_.quantumViolation200 += n; }

  /// How long the task last waited on a run queue, and the longest such wait.
  TaskTimeDuration taskLastSchedulingLatency() const { return figures_.lastSchedulingLatency; }
  void taskLastSchedulingLatencyIs(TaskTimeDuration wait) { figures_.lastSchedulingLatency = wait; }
  TaskTimeDuration taskSchedulingLatencyHighWaterMark() const {
    return figures_.schedulingLatencyHighWaterMark;
  }
  void taskSchedulingLatencyHighWaterMarkIs(TaskTimeDuration mark) {
    figures_.schedulingLatencyHighWaterMark = mark;
  }

  /// How many finished tasks are merged in this.
  unsigned int taskCompletedCount() const { return taskCompletedCount_; }
  void taskCompletedCountIs(unsigned int count) { taskCompletedCount_ = count; }
  void taskCompletedCountInc(unsigned int n) { taskCompletedCount_ += n; }

  /// Runs that ended by an exception.
  unsigned int taskThrewCount() const { return figures_.threwCount; }
  void taskThrewCountInc(unsigned int n) { figures_.threwCount += n; }

 private:
  friend class TaskImpl;  // copies its figures

  TaskStat(ConstStringRef taskName, TaskKey taskKey, TaskPriority taskPriority,
           const Impl::TaskFigures& figures);

  ConstStringRef taskName_;
  TaskKey taskKey_;
  TaskPriority taskPriority_;
  TaskStatus taskStatus_;
  Impl::TaskFigures figures_;
  unsigned int taskCompletedCount_ = 0;
};

/// The key by which reports connect a group with its members: the name and the key of the group's
/// parent task. `parentTask` are its figures; those of any other task fail an assertion.
TARVO_EXPORT String subSchedulerKey(const TaskStat& parentTask);

/// The figures of one run queue.
class TARVO_EXPORT TaskSchedulerPriorityStats {
 public:
  explicit TaskSchedulerPriorityStats(TaskPriority priority = TaskPriority::absolute,
                                      unsigned int runnable = 0, unsigned int notRunnable = 0,
                                      unsigned int completed = 0, unsigned int runCount = 0)
      : priority_(priority),
        runnable_(runnable),
        notRunnable_(notRunnable),
        completed_(completed),
        runCount_(runCount) {}

  /// Adds the four counters. Fails an assertion when the priorities differ.
  TaskSchedulerPriorityStats& operator+=(const TaskSchedulerPriorityStats& other);

  TaskPriority priority() const { return priority_; }
  /// Tasks on the run queue, and registered tasks of the priority that are not.
  unsigned int runnable() const { return runnable_; }
  unsigned int notRunnable() const { return notRunnable_; }
  /// Records of completed tasks.
  unsigned int completed() const { return completed_; }
  /// How many tasks were picked from the queue so far.
  unsigned int runCount() const { return runCount_; }

 private:
  TaskPriority priority_;
  unsigned int runnable_;
  unsigned int notRunnable_;
  unsigned int completed_;
  unsigned int runCount_;
};

/// The figures of the run queues of a scheduler, or the sums over several.
class TARVO_EXPORT TaskSchedulerQueueStats
    : public std::map<TaskPriority, TaskSchedulerPriorityStats> {
 public:
  using std::map<TaskPriority, TaskSchedulerPriorityStats>::map;

  /// Adds the entries of `other` to those of the same priority; missing ones are copied.
  TaskSchedulerQueueStats& operator+=(const TaskSchedulerQueueStats& other);
};

}  // namespace Tarvo

#endif
