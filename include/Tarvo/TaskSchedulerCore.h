#ifndef TARVO_TASKSCHEDULERCORE_H
#define TARVO_TASKSCHEDULERCORE_H

/// The base class of roots and task groups. Tarvo/TaskScheduler.h says what runs when.

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>

#include <pthread.h>

#include "Tarvo/Export.h"
#include "Tarvo/List.h"
#include "Tarvo/Locking.h"
#include "Tarvo/String.h"
#include "Tarvo/Task.h"
#include "Tarvo/TaskStat.h"
#include "Tarvo/TaskTime.h"
#include "Tarvo/detail/KeptObject.h"
#include "Tarvo/detail/TaskRunQueues.h"

namespace Tarvo {

class TaskNameIndex;
class TaskSchedulerHistory;
class TaskSchedulerRoot;

/// A scheduler: it knows its tasks and runs them, one per step.
class TARVO_EXPORT TaskScheduler : public std::enable_shared_from_this<TaskScheduler> {
 public:
  using TaskRunQueues = Tarvo::TaskRunQueues;
  using RegisteredTasks = BookmarkList<TaskImpl, &TaskImpl::taskRegisteredLink_>;

  TaskScheduler(const TaskScheduler&) = delete;
  TaskScheduler& operator=(const TaskScheduler&) = delete;

  /// Whether statsResetAsync() of the root is under way.
  virtual bool resetStatsInProgress() const;
  /// Asks for one more run step soon.
  virtual void requestSchedulerRun() = 0;
  /// Called when the set of tasks with a test yield ratio has become empty or non-empty.
  virtual void handleTaskForceYieldInTest() = 0;
  /// Registers a task; the task's constructor calls it. Ends the process when the task is
  /// registered already or its priority is not valid.
  virtual void taskRegister(TaskImpl* task);
  virtual ~TaskScheduler();

  /// Unregisters a task and keeps its figures if includeInCompletedTask() says so. Ends the process
  /// when the task is scheduled or not registered.
  void taskUnregister(TaskImpl* task);

  /// The run step: picks one task, runs it and requests the next step. Without a runnable task, or
  /// while the root is suspended, it requests nothing. Fails an assertion inside a run of the same
  /// scheduler.
  void handleSchedulerRun();
  /// Says whether there is a runnable task. A change to true requests a run step.
  void schedulerHasRunnableTasksIs(bool runnable, TaskClock::time_point now);
  bool schedulerHasRunnableTasks() const { return hasRunnableTasks_; }
  /// Picks the next task of priority `from` or less urgent, removes it from its queue and records
  /// how long it has waited; null when there is none.
  TaskImpl* pickOneTask(TaskClock::time_point now, unsigned from = TaskPriority::absolute);
  bool attemptLowerPriorityBump(TaskPriority priority, std::uint32_t consecutivePicks) const {
    return runQueues_.attemptLowerPriorityBump(priority, consecutivePicks);
  }
  /// How many tasks would run before one of `priority` scheduled now; 0 outside a run step.
  std::uint64_t tasksAhead(TaskPriority priority) const;
  /// Records the time since the last request for a run step.
  void checkSchedulerLatency(TaskClock::time_point now);

  /// For passes that run each task at most once.
  void taskRunQueuesMovePersistentToTemporary() { runQueues_.movePersistentToTemporary(); }
  void taskRunQueuesMoveTemporaryToPersistent() { runQueues_.moveTemporaryToPersistent(); }

  /// Ends the process unless it is called on the thread of the root, or the check is off.
  TARVO_EXPORT void sanityCheckCurrentRunningThread() const {
    if (threadCheck_->owner != Locking::Impl::self() && !threadCheck_->disabled) [[unlikely]] {
      failThreadCheckOfRoot();
    }
  }

  const String& schedulerName() const { return schedulerName_; }
  const ConstStringRef& schedulerNameRef() const { return schedulerNameRef_; }
  TaskSchedulerRoot* root() const { return root_; }
  TaskSchedulerHistory& history() const { return *history_; }
  ConstStringCache& constStringCache() const { return *nameCache_; }
  const RegisteredTasks& registeredTasks() const { return registeredTasks_; }

  /// The quantum of tasks made from now on, in nanoseconds; not checked. 20 ms at first.
  TaskTimeDuration defaultTaskQuantum() const { return defaultTaskQuantum_; }
  void defaultTaskQuantumIs(TaskTimeDuration quantum) { defaultTaskQuantum_ = quantum; }

  /// The time from the last request for a run step to that step, and its maximum.
  TaskTimeDuration lastSchedulerLatency() const { return lastSchedulerLatency_; }
  TaskTimeDuration maxSchedulerSlip() const { return maxSchedulerSlip_; }

  /// The task whose body is executing; null between runs.
  const _TaskBase* currentlyRunningTask() const { return currentlyRunning_.task.get(); }
  /// The library clock at the start of the current run, for runs in virtual time.
  Time virtualRunStart() const { return virtualRunStart_; }
  void virtualRunStartIs(Time start) { virtualRunStart_ = start; }

  /// The numbers of registered tasks and of records of completed tasks, by priority.
  unsigned int tasksPerPriority(TaskPriority priority) const;
  void tasksPerPriorityInc(TaskPriority priority) { ++tasksPerPriority_[priority]; }
  void tasksPerPriorityDec(TaskPriority priority) { --tasksPerPriority_[priority]; }
  unsigned int completedTasksPerPriority(TaskPriority priority) const;
  void completedTasksPerPriorityInc(TaskPriority priority) {
    ++completedTasksPerPriority_[priority];
  }
  void completedTasksPerPriorityDec(TaskPriority priority) {
    --completedTasksPerPriority_[priority];
  }
  /// How many tasks were picked from the run queue of a priority so far.
  std::uint64_t runTaskCount(TaskPriority priority) const {
    return runQueues_.queue(priority).dequeuedCount();
  }
  std::uint64_t runnableTaskCount(TaskPriority priority) const {
    return runQueues_.queue(priority).runnableCount();
  }
  std::uint64_t runnableTaskCount() const { return runQueues_.runnableCount(); }
  TaskSchedulerQueueStats queueStats() const;

  /// Sets the figures of all tasks and of the scheduler back to the start, and drops the records of
  /// completed tasks.
  void resetStats();

  /// Adds the figures of a finished task to the record of its name and priority.
  void updateCompletedTaskStats(const TaskStat& finished);
  /// The maximum number of such records, 10,000 at first; a new group takes it from its parent. The
  /// figures of further names are added up under "(others)", in one more record per priority.
  /// Lowering the maximum adds the newest records to those.
  unsigned int completedTaskRecordsMax() const;
  void completedTaskRecordsMaxIs(unsigned int most);

  /// Tells the scheduler that a task has got a test yield ratio, or has lost it.
  void taskForceYieldInTestNotify(const TaskImpl* task, bool force);
  bool anyTaskForceYieldInTest() const { return !forceYieldTasks_.empty(); }

  /// Look-ups by name, for tests: null or empty when there is none; any one when there are several.
  TaskImpl* taskForTest(const String& name) const;
  std::optional<TaskStat> taskStatForTest(const String& name) const;
  std::optional<TaskStat> completedTaskStatForTest(const String& name) const;
  TaskScheduler* findSchedulerForTest(const String& name) const;

 protected:
  /// The thread of the root. All schedulers of a root point to the root's copy.
  struct ThreadCheck {
    pthread_t owner;
    bool disabled = false;
  };

  /// A root is its own root.
  TaskScheduler(const String& name, TaskSchedulerRoot* root, const ThreadCheck& threadCheck,
                std::shared_ptr<TaskSchedulerHistory> history);
  /// A scheduler with the root and the default quantum of `parent`.
  TaskScheduler(const String& name, const TaskScheduler& parent);

  /// The run step at `now`; returns when it ended.
  TaskClock::time_point runStep(TaskClock::time_point now);
  /// Whether a run step would find a task.
  bool hasTaskToRun() const { return runQueues_.anyInCurrentLists(); }
  /// Whether a task of that priority or a more urgent one is queued.
  bool hasTaskToRun(unsigned priority) const { return runQueues_.runnableCountUpTo(priority) != 0; }
  /// Requests a run step and records when.
  void requestNextRun(TaskClock::time_point now);
  void recordEvent(TaskClock::time_point now, TaskSchedulerEventType type) const;

 private:
  [[noreturn]] void failThreadCheckOfRoot() const;
  void countCompletedTasks();

  friend class TaskImpl;   // enters itself in runQueues_
  friend class StatsWalk;  // visits tasks and records
  struct CurrentTask {
    TaskKey key;
    std::shared_ptr<_TaskBase> task;  // null between runs
  };

  String schedulerName_;
  TaskSchedulerRoot* root_;
  const ThreadCheck* threadCheck_;
  std::shared_ptr<TaskSchedulerHistory> history_;
  std::unique_ptr<TaskNameIndex> nameIndex_;  // its names are in the history's cache
  RegisteredTasks registeredTasks_;
  TaskRunQueues runQueues_;
  std::map<TaskPriority, unsigned int> tasksPerPriority_;
  std::map<TaskPriority, unsigned int> completedTasksPerPriority_;
  TaskClock::time_point lastRunRequestTime_;
  TaskClock::time_point busyChangeTime_;  // for TaskImpl::taskBusyChangeTime()
  TaskTimeDuration lastSchedulerLatency_ = 0;
  TaskTimeDuration defaultTaskQuantum_ = 20'000'000;
  TaskTimeDuration maxSchedulerSlip_ = 0;
  bool hasRunnableTasks_ = false;
  CurrentTask currentlyRunning_;
  Impl::KeptObject kept_;  // a task that threw; it may hold the last reference to this scheduler
  Time virtualRunStart_ = 0;
  std::shared_ptr<ConstStringCache> nameCache_;  // a member of *history_, which this keeps alive
  ConstStringRef schedulerNameRef_;
  std::set<const TaskImpl*> forceYieldTasks_;
};

TARVO_EXPORT std::ostream& operator<<(std::ostream& out, const TaskScheduler& scheduler);

}  // namespace Tarvo

#endif
