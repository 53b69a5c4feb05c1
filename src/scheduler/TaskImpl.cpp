#include <algorithm>
#include <cstddef>
#include <utility>

#include "Tarvo/Platform.h"
#include "Tarvo/TaskScheduler.h"
#include "Tarvo/TaskSchedulerHistory.h"
#include "Tarvo/TimerWheel.h"
#include "scheduler/SchedulerTrace.h"
#include "scheduler/WorkMark.h"

namespace Tarvo {

using Impl::taskSchedulerTrace;

TaskImpl::TaskImpl(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                   const String& name)
    : _TaskBase(std::move(scheduler), priority, name),
      taskQuantum_(taskScheduler()->defaultTaskQuantum()),
      taskKey_(taskScheduler()->root()->newTaskKey()),
      taskEventName_(taskNameRef()) {
  try {
    taskShouldYieldModeReevaluate();
    handleInitialized();
  } catch (...) {
    // The destructor will not run, so leave the scheduler's set of tasks with a test yield ratio.
    taskTestYieldRatioEffectiveIs(0);
    throw;
  }
}

TaskImpl::~TaskImpl() { handleDestroy(); }

void TaskImpl::checkLayout() const {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
  constexpr std::size_t hot = offsetof(TaskImpl, taskBusy_);
  static_assert(offsetof(TaskImpl, taskScheduler_) == sizeof(void*));  // after the virtual table
#pragma GCC diagnostic pop
  constexpr std::size_t line = 64;
  constexpr std::size_t alignment = 16;  // of allocations
  constexpr std::size_t hotLength = sizeof(TaskImpl) + sizeof(TimerWheelEvent) - hot;
  constexpr std::size_t mostBefore = line - alignment + hot % alignment;  // in its first line
  static_assert(mostBefore + hotLength <= 2 * line);
}

void TaskImpl::handleInitialized() { taskScheduler()->taskRegister(this); }

// Runs once per class of the hierarchy. The magic number tells whether it has unregistered the task
// already; it also catches a scheduleTask() from a hook after that.
void TaskImpl::handleDestroy() {
  TaskImpl::unscheduleTask();
  taskTestYieldRatioEffectiveIs(0);
  if (taskMagicNumber_ == taskMagicNumberDestroyed) return;
  taskScheduler()->taskUnregister(this);
  taskMagicNumber_ = taskMagicNumberDestroyed;
}

void TaskImpl::taskStatsNameIs(String name) { _TaskBase::taskStatsNameIs(std::move(name)); }

bool TaskImpl::taskScheduled() const { return taskOnRunQueue(); }

void TaskImpl::recordEvent(TaskClock::time_point now, TaskSchedulerEventType type) const {
  taskScheduler()->history().put(now, type, taskEventName_);
}

void TaskImpl::scheduleTask() {
  TaskScheduler& scheduler = *taskScheduler();
  scheduler.sanityCheckCurrentRunningThread();
  if (taskOnRunQueue()) return;
  TARVO_ASSERT(taskMagicNumber_ == taskMagicNumberConstructed, "{} is scheduled after its end",
               *this);
  const auto now = TaskClock::now();
  if (taskSuspended()) {
    recordEvent(now, TaskSchedulerEventType::scheduleSus);
    return;
  }
  TARVO_TRACE(taskSchedulerTrace, 8, "Scheduled {}", *this);
  recordEvent(now, TaskSchedulerEventType::schedule);
  taskScheduledTime_ = now;
  scheduler.runQueues_.queue(taskPriority_).enqueue(*this);
  try {
    scheduler.schedulerHasRunnableTasksIs(true, now);
  } catch (...) {
    unscheduleTaskPrivate(now);  // without a run request the task would stay queued for ever
    throw;
  }
  taskBusyIs(taskScheduled(), now);
}

void TaskImpl::unscheduleTask() {
  taskScheduler()->sanityCheckCurrentRunningThread();
  if (!taskOnRunQueue()) return;
  const auto now = TaskClock::now();
  unscheduleTaskPrivate(now);
  taskBusyIs(taskScheduled(), now);
}

void TaskImpl::unscheduleTaskPrivate(TaskClock::time_point now) {
  if (!taskOnRunQueue()) return;
  TARVO_TRACE(taskSchedulerTrace, 8, "Unscheduled {}", *this);
  recordEvent(now, TaskSchedulerEventType::unschedule);
  taskScheduler()->runQueues_.queue(taskPriority_).withdraw(*this);
  schedulingLatencyIs(now);
}

void TaskImpl::schedulingLatencyIs(TaskClock::time_point now) {
  // A step starts with the time at which the last run ended. A task may have been scheduled after
  // that, so the difference may be negative.
  figures_.lastSchedulingLatency =
      std::max(TaskTimeDuration{0}, nanoseconds(now - taskScheduledTime_));
  figures_.schedulingLatencyHighWaterMark =
      std::max(figures_.schedulingLatencyHighWaterMark, figures_.lastSchedulingLatency);
}

// handleTaskBusy() comes last, here and in the callers, because it may destroy the task.
void TaskImpl::taskBusyIs(bool busy, TaskClock::time_point now) {
  if (busy == taskBusy_) return;
  taskBusy_ = busy;
  recordEvent(now, busy ? TaskSchedulerEventType::busy : TaskSchedulerEventType::idle);
  taskScheduler()->busyChangeTime_ = now;
  handleTaskBusy();
}

TaskClock::time_point TaskImpl::taskBusyChangeTime() const {
  return taskScheduler()->busyChangeTime_;
}

void TaskImpl::taskSuspendedIs(bool suspended) {
  taskScheduler()->sanityCheckCurrentRunningThread();
  if (suspended == taskSuspended()) return;
  flagIs(suspendedFlag, suspended);
  if (suspended) {
    TARVO_TRACE(taskSchedulerTrace, 1, "Suspend {}", *this);
    recordEvent(TaskClock::now(), TaskSchedulerEventType::suspendOn);
    unscheduleTask();
  } else {
    TARVO_TRACE(taskSchedulerTrace, 1, "Unsuspend {}", *this);
    recordEvent(TaskClock::now(), TaskSchedulerEventType::suspendOff);
    if (!taskScheduled()) scheduleTask();
  }
}

// The body may do anything, also schedule or suspend its own task. Every way out leads through
// closeRun(), so that figures and history stay complete when the body throws.
TaskClock::time_point TaskImpl::taskDoRun(TaskClock::time_point now) {
  now = std::max(now, taskScheduledTime_);  // see schedulingLatencyIs()
  recordEvent(now, TaskSchedulerEventType::runStart);
  TARVO_ASSERT(!taskOnRunQueue(), "{} is to run and still on a run queue", *this);
  TARVO_ASSERT(!taskCurrentlyRunning_, "{} is running already", *this);
  TARVO_TRACE(taskSchedulerTrace, 8, "Running {}", *this);
  taskRunStartTime_ = now;
  if (taskShouldYieldMode_ == TaskShouldYieldMode::virtualTime) {
    taskScheduler()->virtualRunStartIs(time());
  }
  ++figures_.runCount;
  taskCurrentlyRunning_ = true;
  try {
    taskExecute();
  } catch (...) {
    try {
      closeRun(true);
    } catch (...) {  // drop it: the body's own exception must reach the loop
      TARVO_TRACE(taskSchedulerTrace, 1, "{} handleTaskBusy() threw after the body had", *this);
    }
    throw;
  }
  if (taskMagicNumber_ != taskMagicNumberConstructed) [[unlikely]] {
    closeRun();
    TARVO_FAIL("Task: {} taskMagicNumber: {} taskMagicNumberConstructed: {}", *this,
               taskMagicNumber_, taskMagicNumberConstructed);
  }
  return closeRun();
}

// Reads the clock once: the time at which a run ends is also the time of the next step.
TaskClock::time_point TaskImpl::closeRun(bool threw) {
  taskCurrentlyRunning_ = false;
  const auto end = TaskClock::now();
  const TaskTimeDuration used = nanoseconds(end - taskRunStartTime_);
  // Divides the time instead of multiplying the quantum, which could overflow.
  if (taskQuantum_ != 0 && used / 2 >= taskQuantum_) {
    countViolation(used);
  } else {
    TARVO_TRACE(taskSchedulerTrace, 7, "Ran {} used {}", *this, static_cast<Time>(used) / 1e9);
  }
  figures_.runTimeHighWaterMark = std::max(figures_.runTimeHighWaterMark, used);
  figures_.totalRunTime += used;
  recordEvent(end, TaskSchedulerEventType::runEnd);
  if (threw) [[unlikely]]
    noteThrow(used);
  taskBusyIs(taskScheduled(), end);
  return end;
}

void TaskImpl::noteThrow(TaskTimeDuration used) {
  ++figures_.threwCount;
  taskScheduler()->history().newestThrew();
  // The names are cut so that the line fits its stack buffer: the exception may be std::bad_alloc.
  TARVO_TRACE(taskSchedulerTrace, 0, "{} {:.78} of scheduler {:.30} threw after {:.6f} s",
              taskPriority_.oneChar(), taskName(), taskScheduler()->schedulerName(),
              static_cast<Time>(used) / 1e9);
}

void TaskImpl::countViolation(TaskTimeDuration used) {
  TARVO_TRACE(taskSchedulerTrace, 5, "Ran {} used {} {}% violation", *this,
              static_cast<Time>(used) / 1e9,
              static_cast<std::int64_t>(static_cast<double>(used) /
                                        static_cast<double>(taskQuantum_) * 100));
  ++(used / 5 >= taskQuantum_ ? figures_.quantumViolation500 : figures_.quantumViolation200);
}

bool TaskImpl::taskShouldYield() const {
  const bool readsClock = taskShouldYieldMode_ == TaskShouldYieldMode::steadyClock;
  return taskShouldYieldAt(readsClock ? TaskClock::now() : TaskClock::time_point());
}

bool TaskImpl::taskShouldYieldAt(TaskClock::time_point now) const {
  taskScheduler()->sanityCheckCurrentRunningThread();
  TARVO_ASSERT(taskCurrentlyRunning_ || figures_.runCount == 0,
               "taskCurrentlyRunning: {} taskRunCount: {}", taskCurrentlyRunning_,
               figures_.runCount);
  switch (taskShouldYieldMode_) {
    case TaskShouldYieldMode::steadyClock:
      return now < taskRunStartTime_ || nanoseconds(now - taskRunStartTime_) >= taskQuantum_;
    case TaskShouldYieldMode::virtualTime:
      return time() - taskScheduler()->virtualRunStart() >= static_cast<Time>(taskQuantum_) / 1e9;
    case TaskShouldYieldMode::testRatio:
      return taskTestYieldRatioEffective_ != 0 &&
             ++taskTestYieldCounter_ % taskTestYieldRatioEffective_ == 0;
  }
  TARVO_FAIL("Unexpected value {}", static_cast<unsigned>(taskShouldYieldMode_));
}

void TaskImpl::taskShouldYieldModeIs(TaskShouldYieldMode mode) {
  taskScheduler()->sanityCheckCurrentRunningThread();
  if (mode == taskShouldYieldMode_) return;
  taskShouldYieldMode_ = mode;
  if (mode == TaskShouldYieldMode::virtualTime && taskCurrentlyRunning_) {
    taskScheduler()->virtualRunStartIs(time());
  }
}

void TaskImpl::taskShouldYieldModeReevaluate() {
  const TaskSchedulerRoot& root = *taskScheduler()->root();
  taskTestYieldRatioEffectiveIs(taskTestYieldRatio_ != 0 ? taskTestYieldRatio_
                                                         : root.taskTestYieldRatio());
  if (taskTestYieldRatioEffective_ != 0) {
    taskShouldYieldModeIs(TaskShouldYieldMode::testRatio);
  } else if (root.virtualTime()) {
    taskShouldYieldModeIs(TaskShouldYieldMode::virtualTime);
  } else {
    taskShouldYieldModeIs(TaskShouldYieldMode::steadyClock);
  }
}

void TaskImpl::taskTestYieldRatioIs(unsigned char ratio) {
  taskScheduler()->sanityCheckCurrentRunningThread();
  if (ratio == taskTestYieldRatio_) return;
  taskTestYieldRatio_ = ratio;
  recordEvent(TaskClock::now(), ratio != 0 ? TaskSchedulerEventType::frcYieldOn
                                           : TaskSchedulerEventType::frcYieldOff);
  taskShouldYieldModeReevaluate();
}

void TaskImpl::taskTestYieldRatioEffectiveIs(unsigned char ratio) {
  taskScheduler()->sanityCheckCurrentRunningThread();
  if (ratio == taskTestYieldRatioEffective_) return;
  const bool wasOn = taskTestYieldRatioEffective_ != 0;
  if (wasOn != (ratio != 0)) taskScheduler()->taskForceYieldInTestNotify(this, ratio != 0);
  taskTestYieldRatioEffective_ = ratio;
  taskTestYieldCounter_ = 0;
}

void TaskImpl::taskQuantumIs(TaskTimeDuration quantum) {
  taskScheduler()->sanityCheckCurrentRunningThread();
  TARVO_ASSERT(quantum <= 1'000'000'000, "Quantum: {}", quantum);
  taskQuantumNoCheckIs(quantum);
}

void TaskImpl::taskQuantumNoCheckIs(TaskTimeDuration quantum) {
  taskScheduler()->sanityCheckCurrentRunningThread();
  if (quantum == taskQuantum_) return;
  TARVO_ASSERT(quantum > 0, "Quantum: {}", quantum);
  taskQuantum_ = quantum;
  TARVO_TRACE(taskSchedulerTrace, 3, "Set quantum {} to {}", *this, quantum);
}

TaskTimeDuration TaskImpl::taskCurrentRunTime() const {
  taskScheduler()->sanityCheckCurrentRunningThread();
  TARVO_ASSERT(taskCurrentlyRunning_, "Task: {} not currently running", *this);
  if (taskShouldYieldMode_ == TaskShouldYieldMode::virtualTime) {
    return time2Duration(time() - taskScheduler()->virtualRunStart());
  }
  return nanoseconds(TaskClock::now() - taskRunStartTime_);
}

void TaskImpl::taskWorkCountInc(unsigned long long n) {
  taskScheduler()->sanityCheckCurrentRunningThread();
  figures_.workCountTotal += n;
  const auto report = static_cast<float>(n);
  figures_.workCountDecayAvg = figures_.workCountHighWaterMark == TaskStat::noMark
                                   ? report
                                   : (9.0F * figures_.workCountDecayAvg + report) / 10.0F;
  Impl::raiseMark(figures_.workCountHighWaterMark, n);
}

void TaskImpl::taskWorkPendingIs(unsigned int n) {
  taskScheduler()->sanityCheckCurrentRunningThread();
  figures_.workPending = n;
  Impl::raiseMark(figures_.workPendingHighWaterMark, n);
}

TaskStat::TaskStatus TaskImpl::taskStatus() const {
  TaskStat::TaskStatus status;
  status.taskOnRunQueueIs(taskOnRunQueue());
  status.taskCurrentlyRunningIs(taskCurrentlyRunning_);
  status.taskSuspendedIs(taskSuspended());
  status.taskIsTaskGroupIs(isTaskGroup());
  return status;
}

TaskStat TaskImpl::getStats() const {
  taskScheduler()->sanityCheckCurrentRunningThread();
  TaskStat stat(taskStatsNameRef(), taskKey_, taskPriority_, figures_);
  stat.taskStatusIs(taskStatus());
  return stat;
}

void TaskImpl::resetStats() {
  taskScheduler()->sanityCheckCurrentRunningThread();
  figures_ = {};
  handleResetStats();
}

void TaskImpl::taskRunFromTest() {
  taskScheduler()->sanityCheckCurrentRunningThread();
  TARVO_ASSERT(!taskCurrentlyRunning_, "{} is running already", *this);
  const auto self = weak_from_this().lock();
  const auto now = TaskClock::now();
  if (taskOnRunQueue()) {
    taskScheduler()->runQueues_.queue(taskPriority_).dequeue(*this);
    schedulingLatencyIs(now);
  }
  taskDoRun(now);
}

void TaskImpl::taskRunAndRecordFromTest() {
  taskScheduler()->sanityCheckCurrentRunningThread();
  taskScheduler()->checkSchedulerLatency(TaskClock::now());
  taskRunFromTest();
}

}  // namespace Tarvo
