#ifndef TARVO_TASKGROUP_H
#define TARVO_TASKGROUP_H

/// A family of tasks that shares one place in its parent scheduler.
///
/// A group is a scheduler of its own. In its parent scheduler one task, the parent task, represents
/// it:
/// 1. The first member that is scheduled schedules the parent task.
/// 2. When the parent scheduler runs the parent task, the group runs its members, most urgent
///    first, until the parent task's quantum is used up or no member is runnable. At least one
///    member runs.
/// 3. When members are still runnable, the parent task is scheduled again, at the end of its queue.
/// So the group's priority and quantum bound the time that all members together take from the
/// thread, and the members' priorities order the work inside. A member may itself be the parent
/// task of a group.
///
///     auto background = std::make_shared<Tarvo::TaskGroup>("background", Tarvo::TaskPriority::low,
///                                                          false, Tarvo::schedulerRootTarvo());
///     background->taskGroupQuantumIs(std::chrono::milliseconds(2));
///     auto digest = std::make_shared<Digest>(background, Tarvo::TaskPriority::normal, "digest");
///
/// A group is made with std::make_shared. Each member holds a reference to it. The group holds its
/// parent scheduler. When a member throws, the exception leaves the event loop; the other members
/// run with the next doEventLoop().

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

  /// With `enforcePriority`, making a member of another priority than the group's fails an
  /// assertion.
  TaskGroup(const String& name, TaskPriority priority, bool enforcePriority,
            std::shared_ptr<TaskScheduler> parentScheduler);
  ~TaskGroup() override;

  /// Schedules the parent task.
  void requestSchedulerRun() override;
  /// Makes the parent task yield after each member while a member has a test yield ratio.
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

  /// Whether a member that schedules itself may run again within the same run of the parent task.
  /// True at first. A change takes effect with the parent's next run.
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

/// The task that represents a group in its parent scheduler.
class TARVO_EXPORT TaskGroup::ParentTask : public Task {
 public:
  ParentTask(TaskGroup& group, std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority);
  ~ParentTask() override;

  void taskExecute() override;
  /// Resets the members' figures too.
  void handleResetStats() override;

 private:
  friend class TaskGroup;

  // Null once the group is destroyed: its destructor clears this. It cannot be a std::weak_ptr, as
  // the group makes its parent task in its constructor.
  TaskGroup* group_;
};

}  // namespace Tarvo

#endif
