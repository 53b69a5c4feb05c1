#ifndef TARVO_TASKGROUP_H
#define TARVO_TASKGROUP_H

/// A family of tasks that shares one place in its parent scheduler.
///
/// A group is a scheduler of its own. In its parent stands one task for it, the parent task:
/// 1. The first member that is scheduled schedules the parent task.
/// 2. When the parent scheduler runs that, the group runs its members, chosen by their priorities
///    among each other, until the parent task's quantum is used up or no member is left to run. At
///    least one member runs.
/// 3. When members are left, the parent task is scheduled again, at the end of its queue.
/// So the group's quantum and priority bound what the whole family takes from the thread, and the
/// members' priorities order the work inside. Members may themselves be parent tasks of groups.
///
///     auto background = std::make_shared<Tarvo::TaskGroup>("background", Tarvo::TaskPriority::low,
///                                                          false, Tarvo::schedulerRootTarvo());
///     background->taskGroupQuantumIs(std::chrono::milliseconds(2));
///     auto digest = std::make_shared<Digest>(background, Tarvo::TaskPriority::normal, "digest");
///
/// A group is made with std::make_shared and lives as long as its owners, of which each member is
/// one. It holds its parent scheduler. When a member throws, the exception leaves the event loop;
/// the other members run with the next doEventLoop().

#include <chrono>
#include <memory>

#include "Tarvo/Export.h"
#include "Tarvo/String.h"
#include "Tarvo/Task.h"
#include "Tarvo/TaskSchedulerCore.h"

namespace Tarvo {

class TARVO_EXPORT TaskGroup : public TaskScheduler {
 public:
  class ParentTask;

  /// With `enforcePriority` every member must have the group's priority; an assertion fails for one
  /// that has not.
  TaskGroup(const String& name, TaskPriority priority, bool enforcePriority,
            std::shared_ptr<TaskScheduler> parentScheduler);
  ~TaskGroup() override;

  /// Schedules the parent task.
  void requestSchedulerRun() override;
  /// Makes the parent task yield after each member while a member is under a test yield ratio.
  void handleTaskForceYieldInTest() override;
  void taskRegister(TaskImpl* task) override;

  TaskPriority taskGroupPriority() const { return taskGroupPriority_; }

  /// The parent task's quantum, in nanoseconds; see TaskImpl::taskQuantum().
  TaskTimeDuration taskGroupQuantum() const;
  void taskGroupQuantumIs(TaskTimeDuration quantum);
  void taskGroupQuantumIs(std::chrono::nanoseconds quantum) { taskGroupQuantumIs(quantum.count()); }
  void taskGroupQuantumNoCheckIs(TaskTimeDuration quantum);
  void taskGroupQuantumNoCheckIs(std::chrono::nanoseconds quantum) {
    taskGroupQuantumNoCheckIs(quantum.count());
  }

  /// Whether a member that schedules itself may run again within one run of the parent task; yes at
  /// first. Takes effect with the parent's next run.
  bool tasksPermittedMultipleRuns() const { return tasksPermittedMultipleRuns_; }
  void tasksPermittedMultipleRunsIs(bool permitted) { tasksPermittedMultipleRuns_ = permitted; }

  const TaskImpl& parentTask() const;
  unsigned int parentTaskRunCount() const;
  /// Whether the parent task is on its run queue.
  bool parentTaskScheduled() const;

  /// For tests: makes the parent task yield after each member.
  bool taskGroupForceYieldInTest() const { return forceYieldInTest_; }
  void taskGroupForceYieldInTestIs(bool force);
  /// For tests: runs the parent task outside the loop.
  void taskGroupRunFromTest();

 private:
  void runMembers(ParentTask& parent);
  unsigned int runPass(ParentTask& parent);

  std::shared_ptr<ParentTask> parentTask_;
  TaskPriority taskGroupPriority_;
  bool enforcePriority_;
  bool forceYieldInTest_ = false;
  bool tasksPermittedMultipleRuns_ = true;
};

/// What stands for a group in its parent scheduler.
class TARVO_EXPORT TaskGroup::ParentTask : public Task {
 public:
  ParentTask(TaskGroup& group, std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority);
  ~ParentTask() override;

  void taskExecute() override;
  /// Resets the members' figures too.
  void handleResetStats() override;

 private:
  friend class TaskGroup;

  // A weak reference: cleared by the group's destructor. A std::weak_ptr cannot be had while the
  // group is still being made.
  TaskGroup* group_;
};

}  // namespace Tarvo

#endif
