#ifndef TARVO_TASKSCHEDULERCORE_H
#define TARVO_TASKSCHEDULERCORE_H

/// What roots and task groups have in common. Tarvo/TaskScheduler.h says what runs when.

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <thread>

#include "Tarvo/Export.h"
#include "Tarvo/List.h"
#include "Tarvo/Locking.h"
#include "Tarvo/String.h"
#include "Tarvo/Task.h"
#include "Tarvo/TaskRunQueues.h"
#include "Tarvo/TaskSchedulerHistory.h"
#include "Tarvo/TaskStat.h"
#include "Tarvo/TaskTime.h"
#include "Tarvo/detail/KeptObject.h"

namespace Tarvo {

class TaskNameIndex;
class TaskSchedulerRoot;

/// A scheduler: it knows its tasks and runs them, one per step.
class TARVO_EXPORT TaskScheduler : public std::enable_shared_from_this<TaskScheduler> {
 public:
  using TaskRunQueues = Tarvo::TaskRunQueues;
  using RegisteredTasks = BookmarkList<TaskImpl, &TaskImpl::taskRegisteredLink_>;

  TaskScheduler(const TaskScheduler&) = delete;
  TaskScheduler& operator=(const TaskScheduler&) = delete;

  /// Whether the statistics of the root are just being reset.
  virtual bool resetStatsInProgress() const;
  /// Asks for one more run step soon.
  virtual void requestSchedulerRun() = 0;
  /// Called when the set of tasks under a test yield ratio has become empty or ceased to be.
  virtual void handleTaskForceYieldInTest() = 0;
  /// Adds a task; tasks do it themselves. Ends the process when the task is registered already or
  /// its priority is none.
  virtual void taskRegister(TaskImpl* task);
  virtual ~TaskScheduler();

  /// Removes a task and keeps its figures, if it wants that. Ends the process when the task is
  /// scheduled or not registered.
  void taskUnregister(TaskImpl* task);

  /// The run step: picks one task, runs it and asks for the next step; without a task, or while the
  /// root is suspended, it goes quiet. Fails an assertion inside a run of the same scheduler.
  void handleSchedulerRun();
  /// Announces whether there is something to run; the first such announcement requests a run.
  void schedulerHasRunnableTasksIs(bool runnable, TaskClock::time_point now);
  bool schedulerHasRunnableTasks() const { return hasRunnableTasks_; }
  /// Takes the next task, of priority `from` or less urgent, off its queue and notes how long it
  /// has waited; null without one.
  TaskImpl* pickOneTask(TaskClock::time_point now, unsigned from = TaskPriority::absolute);
  bool attemptLowerPriorityBump(TaskPriority priority, std::uint32_t consecutivePicks) const {
    return runQueues_.attemptLowerPriorityBump(priority, consecutivePicks);
  }
  /// How many tasks would run before one of `priority` scheduled now; 0 outside a run step.
  std::uint64_t tasksAhead(TaskPriority priority) const;
  /// Notes how long ago a run was requested.
  void checkSchedulerLatency(TaskClock::time_point now);

  /// For passes that run each task at most once.
  void taskRunQueuesMovePersistentToTemporary() { runQueues_.movePersistentToTemporary(); }
  void taskRunQueuesMoveTemporaryToPersistent() { runQueues_.moveTemporaryToPersistent(); }

  /// Ends the process unless it is called on the thread of the root, or the check is off.
  TARVO_EXPORT void sanityCheckCurrentRunningThread() const {
    if (threadCheck_->owner != std::thread::id(Locking::Impl::self()) && !threadCheck_->disabled)
        [[unlikely]] {
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

  /// The time from the last request for a run to the run step, and its high-water mark.
  TaskTimeDuration lastSchedulerLatency() const { return lastSchedulerLatency_; }
  TaskTimeDuration maxSchedulerSlip() const { return maxSchedulerSlip_; }

  /// The task whose body is executing; null between runs.
  const _TaskBase* currentlyRunningTask() const { return currentlyRunning_.task.get(); }
  /// The library clock at the start of the current run, for runs in virtual time.
  Time virtualRunStart() const { return virtualRunStart_; }
  void virtualRunStartIs(Time start) { virtualRunStart_ = start; }

  /// Registered tasks, and records of completed tasks, of a priority.
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
  /// Tasks ever taken from the run queue of a priority.
  std::uint64_t runTaskCount(TaskPriority priority) const {
    return runQueues_.queue(priority).dequeuedCount();
  }
  std::uint64_t runnableTaskCount(TaskPriority priority) const {
    return runQueues_.queue(priority).runnableCount();
  }
  std::uint64_t runnableTaskCount() const { return runQueues_.runnableCount(); }
  TaskSchedulerQueueStats queueStats() const;

  /// Sets the figures of all tasks, and the scheduler's own, back to the start and forgets the
  /// completed tasks.
  void resetStats();

  /// Merges the figures of a finished task into the record of its name and priority.
  void updateCompletedTaskStats(const TaskStat& finished);
  /// How many such records are kept, 10,000 at first; a new group takes it over from its parent.
  /// The figures of further names are summed up under "(others)", with one more record for each
  /// priority. Lowering it sums up the newest records.
  unsigned int completedTaskRecordsMax() const;
  void completedTaskRecordsMaxIs(unsigned int most);

  /// Tells the scheduler that a task has come under a test yield ratio or is so no more.
  void taskForceYieldInTestNotify(const TaskImpl* task, bool force);
  bool anyTaskForceYieldInTest() const { return !forceYieldTasks_.empty(); }

  /// Look-ups by name for tests: null or empty when there is none, any one when there are several.
  TaskImpl* taskForTest(const String& name) const;
  std::optional<TaskStat> taskStatForTest(const String& name) const;
  std::optional<TaskStat> completedTaskStatForTest(const String& name) const;
  TaskScheduler* findSchedulerForTest(const String& name) const;

 protected:
  /// Whose thread it is; the root's, which all its schedulers look at.
  struct ThreadCheck {
    std::thread::id owner;
    bool disabled = false;
  };

  /// A root is its own root.
  TaskScheduler(const String& name, TaskSchedulerRoot* root, const ThreadCheck& threadCheck,
                std::shared_ptr<TaskSchedulerHistory> history);
  /// A scheduler under the root of another, whose default quantum it takes over.
  TaskScheduler(const String& name, const TaskScheduler& parent);

  /// The run step at `now`; returns when it ended.
  TaskClock::time_point runStep(TaskClock::time_point now);
  /// Whether a run step would find a task.
  bool hasTaskToRun() const { return runQueues_.anyInCurrentLists(); }
  /// Whether one of that priority or a more urgent one is queued.
  bool hasTaskToRun(unsigned priority) const { return runQueues_.runnableCountUpTo(priority) != 0; }
  /// Requests a run and notes when.
  void requestNextRun(TaskClock::time_point now);
  void recordEvent(TaskClock::time_point now, TaskSchedulerEventType type) const {
    history_->insert(now, type, this);
  }

 private:
  [[noreturn]] void failThreadCheckOfRoot() const;
  void countCompletedTasks();

  friend class TaskImpl;   // enters its queue
  friend class StatsWalk;  // visits its tasks and records
  struct CurrentTask {
    TaskKey key;
    std::shared_ptr<_TaskBase> task;  // null between runs
  };

  String schedulerName_;
  TaskSchedulerRoot* root_;
  const ThreadCheck* threadCheck_;
  std::shared_ptr<TaskSchedulerHistory> history_;
  std::unique_ptr<TaskNameIndex> nameIndex_;  // its names live in the history's cache
  RegisteredTasks registeredTasks_;
  TaskRunQueues runQueues_;
  std::map<TaskPriority, unsigned int> tasksPerPriority_;
  std::map<TaskPriority, unsigned int> completedTasksPerPriority_;
  TaskClock::time_point lastRunRequestTime_;
  TaskClock::time_point busyChangeTime_;  // of any task
  TaskTimeDuration lastSchedulerLatency_ = 0;
  TaskTimeDuration defaultTaskQuantum_ = 20'000'000;
  TaskTimeDuration maxSchedulerSlip_ = 0;
  bool hasRunnableTasks_ = false;
  CurrentTask currentlyRunning_;
  Impl::KeptObject kept_;  // a task that threw, which may hold the last reference to this
  Time virtualRunStart_ = 0;
  std::shared_ptr<ConstStringCache> nameCache_;  // the history's, kept alive by it
  ConstStringRef schedulerNameRef_;
  std::set<const TaskImpl*> forceYieldTasks_;
};

TARVO_EXPORT std::ostream& operator<<(std::ostream& out, const TaskScheduler& scheduler);

}  // namespace Tarvo

#endif
