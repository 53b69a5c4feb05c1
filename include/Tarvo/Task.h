#ifndef TARVO_TASK_H
#define TARVO_TASK_H

/// A task: a piece of work that a scheduler runs when its turn has come.
///
/// States: idle; scheduled (on its scheduler's run queue); running; and, over these, suspended (a
/// flag: a suspended task is never queued).
/// 1. scheduleTask() puts an idle task on the run queue of its priority. Doing it again changes
///    nothing. A running task that does it runs again later.
/// 2. The scheduler takes the task off the queue and calls its taskExecute(), which works until it
///    is done or taskShouldYield() says that its quantum is used up; then it schedules itself.
/// 3. The run's time is measured, counted and compared with the quantum.
///
/// A task is made with std::make_shared and always held by a shared pointer. Making it registers it
/// with its scheduler, destroying it unregisters it. The scheduler never owns a task, but holds a
/// reference while the task runs, so that its body may drop the last other one. A task holds its
/// scheduler. The body may do anything with its own and with other tasks: schedule, unschedule,
/// suspend, destroy. It cannot run the event loop.
///
/// When a body throws, the run is counted as if it had returned, a trace line names the task, and
/// the exception leaves the event loop. The other scheduled tasks run with the next doEventLoop().
///
/// Every operation belongs to the thread of the root scheduler and checks it.

#include <chrono>
#include <cstdint>
#include <iosfwd>
#include <memory>

#include "Tarvo/ConstString.h"
#include "Tarvo/Export.h"
#include "Tarvo/List.h"
#include "Tarvo/String.h"
#include "Tarvo/TaskStat.h"
#include "Tarvo/TaskTime.h"
#include "Tarvo/detail/TaskFigures.h"

namespace Tarvo {

class TaskScheduler;
enum class TaskSchedulerEventType : std::uint8_t;

namespace Impl {

/// The first base of a task, so that every operation finds the scheduler beside the virtual table.
struct TaskHome {
  std::shared_ptr<TaskScheduler> taskScheduler_;
};

}  // namespace Impl

/// What all kinds of task have in common: a scheduler, a priority and names.
class TARVO_EXPORT _TaskBase : private Impl::TaskHome,
                               public std::enable_shared_from_this<_TaskBase> {
 public:
  _TaskBase(const _TaskBase&) = delete;
  _TaskBase& operator=(const _TaskBase&) = delete;

  /// Replaces the name under which statistics are kept; at first it is the task's name.
  virtual void taskStatsNameIs(String name) = 0;
  virtual bool taskScheduled() const = 0;
  virtual bool taskShouldYield() const = 0;
  /// Reports that `n` units of work were done, or that `n` are left to do.
  virtual void taskWorkCountInc(unsigned long long n) = 0;
  virtual void taskWorkPendingIs(unsigned int n) = 0;
  /// Called when the task has become scheduled, and when it is no longer scheduled.
  virtual void handleTaskBusy();
  /// Called when the task's figures were reset.
  virtual void handleResetStats();
  virtual ~_TaskBase();

  const String& taskName() const { return taskName_.text(); }
  const ConstStringRef& taskNameRef() const { return taskName_; }
  const String& taskStatsName() const { return taskStatsName_.text(); }
  const ConstStringRef& taskStatsNameRef() const { return taskStatsName_; }
  /// The letter of the priority, a blank and the name; used in messages.
  const String& taskLabel() const;
  const std::shared_ptr<TaskScheduler>& taskScheduler() const { return taskScheduler_; }

 protected:
  /// Without a scheduler an assertion fails.
  _TaskBase(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, const String& name);

 private:
  friend class FileDescriptorTask;
  friend class TaskImpl;
  friend TARVO_EXPORT std::ostream& operator<<(std::ostream& out, const _TaskBase& task);

  ConstStringRef taskName_;
  ConstStringRef taskStatsName_;
  mutable ConstStringRef taskLabel_;  // made when it is first asked for
  TaskPriority taskPriority_;
};

TARVO_EXPORT std::ostream& operator<<(std::ostream& out, const _TaskBase& task);

/// A task with all its state. Schedulers link and run objects of this class.
class TARVO_EXPORT TaskImpl : public _TaskBase {
 public:
  /// How taskShouldYield() decides: by the steady clock, by virtual time, or by counting calls.
  enum class TaskShouldYieldMode : std::uint8_t { steadyClock = 0, virtualTime = 1, testRatio = 2 };

  void taskStatsNameIs(String name) override;
  /// Whether the task is on a run queue.
  bool taskScheduled() const override;
  /// Whether a body should stop here and schedule itself for the rest. Fails an assertion outside
  /// a run.
  bool taskShouldYield() const override;
  void taskWorkCountInc(unsigned long long n) override;
  void taskWorkPendingIs(unsigned int n) override;
  ~TaskImpl() override;

  /// Asks for one run. A suspended task is not queued; it gets its run when it is resumed.
  virtual void scheduleTask();
  /// For tests: takes the task off its run queue, if it is on it, and runs it outside the loop.
  virtual void taskRunFromTest();
  virtual TaskStat::TaskStatus taskStatus() const;
  /// The work.
  virtual void taskExecute() = 0;

  /// Removes the task from its run queue; harmless when it is not scheduled.
  void unscheduleTask();

  bool taskSuspended() const { return (flags_ & suspendedFlag) != 0; }
  /// Suspending unschedules the task. Resuming always gives it one run.
  void taskSuspendedIs(bool suspended);

  /// How long a run may take before taskShouldYield() says yes, in nanoseconds. Fails an assertion
  /// unless it is more than zero and at most one second, or without the second limit.
  TaskTimeDuration taskQuantum() const { return taskQuantum_; }
  void taskQuantumIs(TaskTimeDuration quantum);
  void taskQuantumIs(std::chrono::nanoseconds quantum) { taskQuantumIs(quantum.count()); }
  void taskQuantumNoCheckIs(TaskTimeDuration quantum);
  void taskQuantumNoCheckIs(std::chrono::nanoseconds quantum) {
    taskQuantumNoCheckIs(quantum.count());
  }

  /// How long the current run has taken. Fails an assertion outside a run.
  TaskTimeDuration taskCurrentRunTime() const;
  bool taskCurrentlyRunning() const { return taskCurrentlyRunning_; }

  TaskShouldYieldMode taskShouldYieldMode() const { return taskShouldYieldMode_; }
  void taskShouldYieldModeIs(TaskShouldYieldMode mode);
  /// Chooses the mode anew: by count when the task or its root has a test ratio, by virtual time
  /// when the root is in it, otherwise by the steady clock.
  void taskShouldYieldModeReevaluate();

  /// For tests: with a ratio of n every n-th taskShouldYield() says yes; 0 switches that off. The
  /// effective ratio is the task's own, or else the root's.
  unsigned char taskTestYieldRatio() const { return taskTestYieldRatio_; }
  void taskTestYieldRatioIs(unsigned char ratio);
  unsigned char taskTestYieldRatioEffective() const { return taskTestYieldRatioEffective_; }
  void taskTestYieldRatioEffectiveIs(unsigned char ratio);
  bool taskForceYieldInTest() const { return taskTestYieldRatio_ == 1; }
  void taskForceYieldInTestIs(bool force) { taskTestYieldRatioIs(force ? 1 : 0); }
  /// As taskRunFromTest(), measured as a run step of the scheduler is.
  void taskRunAndRecordFromTest();

  TaskPriority taskPriority() const { return taskPriority_; }
  TaskKey taskKey() const { return taskKey_; }
  /// Whether the task stands for a task group.
  bool isTaskGroup() const { return (flags_ & taskGroupFlag) != 0; }

  /// A copy of the task's figures. The copy names the task by an interned string, so it must be
  /// destroyed before the root is. resetStats() sets the figures back to the start.
  TaskStat getStats() const;
  void resetStats();
  unsigned int taskRunCount() const { return figures_.runCount; }
  /// Runs that ended by an exception.
  unsigned int taskThrewCount() const { return figures_.threwCount; }
  unsigned long long taskWorkCountTotal() const { return figures_.workCountTotal; }
  float taskWorkCountDecayAvg() const { return figures_.workCountDecayAvg; }
  unsigned int taskWorkCountHighWaterMark() const { return figures_.workCountHighWaterMark; }
  unsigned int taskWorkPending() const { return figures_.workPending; }
  unsigned int taskWorkPendingHighWaterMark() const { return figures_.workPendingHighWaterMark; }

  /// Whether the figures are kept, under the statistics name, after the task is destroyed. Tasks
  /// with ever new names should share one statistics name, or have this off: the scheduler keeps a
  /// limited number of records (TaskScheduler::completedTaskRecordsMax()).
  bool includeInCompletedTask() const { return includeInCompleted_; }
  void includeInCompletedTaskIs(bool include) { includeInCompleted_ = include; }

 protected:
  TaskImpl(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, const String& name);

  /// Registers the task with its scheduler.
  void handleInitialized();
  /// Unschedules and unregisters the task. The destructor of each derived class calls it, before
  /// its members are destroyed; calling it again is harmless.
  void handleDestroy();

  /// As taskShouldYield(), for a caller that has just read the clock.
  bool taskShouldYieldAt(TaskClock::time_point now) const;

  /// Parts of scheduling that the kinds of tasks share.
  void unscheduleTaskPrivate(TaskClock::time_point now);
  void taskBusyIs(bool busy, TaskClock::time_point now);
  /// Valid inside handleTaskBusy(): when the change happened.
  TaskClock::time_point taskBusyChangeTime() const;
  void isTaskGroupIs(bool group) { flagIs(taskGroupFlag, group); }
  bool taskOnRunQueue() const { return taskRunQueueLink_.isLinked(); }
  void recordEvent(TaskClock::time_point now, TaskSchedulerEventType type) const;

 private:
  friend class TaskScheduler;  // links and runs tasks
  friend class TimerTask;
  friend class TaskRunQueue;
  friend class TaskNameIndex;

  static constexpr std::uint8_t suspendedFlag = 0x01;
  static constexpr std::uint8_t taskGroupFlag = 0x02;
  static constexpr unsigned int taskMagicNumberConstructed = 0x42BE5AFE;
  static constexpr unsigned int taskMagicNumberDestroyed = 0xDEADDEAD;

  /// Runs the body once and returns when it ended.
  TaskClock::time_point taskDoRun(TaskClock::time_point now);
  TaskClock::time_point closeRun(bool threw = false);
  void countViolation(TaskTimeDuration used);
  void noteThrow(TaskTimeDuration used);
  void schedulingLatencyIs(TaskClock::time_point now);
  void flagIs(std::uint8_t flag, bool on) {
    flags_ = static_cast<std::uint8_t>(on ? flags_ | flag : flags_ & ~flag);
  }

  void checkLayout() const;

  unsigned char taskTestYieldRatio_ = 0;
  unsigned char taskTestYieldRatioEffective_ = 0;
  mutable unsigned char taskTestYieldCounter_ = 0;
  unsigned int taskMagicNumber_ = taskMagicNumberConstructed;
  TaskTimeDuration taskQuantum_;
  TaskClock::time_point taskScheduledTime_;
  TaskClock::time_point taskRunStartTime_;
  Impl::TaskFigures figures_;
  TaskKey taskKey_;
  ListLinkNode taskSameNameLink_;  // linked while registered
  // Linked while registered. What follows stands in its padding.
  [[no_unique_address]] BookmarkListLinkNode taskRegisteredLink_;
  std::uint8_t flags_ = 0;
  TaskShouldYieldMode taskShouldYieldMode_ = TaskShouldYieldMode::steadyClock;
  bool taskCurrentlyRunning_ = false;
  bool includeInCompleted_ = true;
  // From here to the end is what scheduling touches, a timer task's timer included: two cache lines
  // wherever an allocation of 16 bytes' alignment begins. See checkLayout().
  bool taskBusy_ = false;
  ConstStringRef taskEventName_;   // taskName() once more, for the history
  ListLinkNode taskRunQueueLink_;  // linked while on a run queue
};

/// The base of ordinary tasks.
///
///     struct Flush : Tarvo::Task {
///       using Task::Task;
///       void taskExecute() override { writeOutWhatIsLeft(); }
///     };
///     auto flush = std::make_shared<Flush>(Tarvo::schedulerRootTarvo(), Tarvo::TaskPriority::low,
///                                          "flush");
///     flush->scheduleTask();
class TARVO_EXPORT Task : public TaskImpl {
 public:
  Task(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, String name);
  /// Shares the scheduler; throws std::bad_weak_ptr when nobody does.
  Task(TaskScheduler* scheduler, TaskPriority priority, String name);
  ~Task() override;

  bool taskScheduled() const override;
  void scheduleTask() override;
  void taskRunFromTest() override;
  TaskStat::TaskStatus taskStatus() const override;
};

}  // namespace Tarvo

#endif
