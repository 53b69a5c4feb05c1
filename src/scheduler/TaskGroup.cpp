#include "Tarvo/TaskGroup.h"

#include <ostream>
#include <utility>

#include "Tarvo/Allocator.h"
#include "Tarvo/Assert.h"
#include "Tarvo/TaskScheduler.h"
#include "Tarvo/TaskSchedulerHistory.h"

namespace Tarvo {

namespace {

const TaskScheduler& checkedParent(const std::shared_ptr<TaskScheduler>& parent) {
  TARVO_ASSERT(parent != nullptr, "Need a TaskScheduler");
  parent->sanityCheckCurrentRunningThread();
  return *parent;
}

/// While it exists, a scheduler picks only tasks that were scheduled before; tasks scheduled
/// meanwhile wait for its end.
class SingleRuns {
 public:
  explicit SingleRuns(TaskScheduler* scheduler) : scheduler_(scheduler) {
    if (scheduler_ != nullptr) scheduler_->taskRunQueuesMovePersistentToTemporary();
  }
  SingleRuns(const SingleRuns&) = delete;
  SingleRuns& operator=(const SingleRuns&) = delete;
  ~SingleRuns() {
    if (scheduler_ != nullptr) scheduler_->taskRunQueuesMoveTemporaryToPersistent();
  }

 private:
  TaskScheduler* scheduler_;
};

}  // namespace

TaskGroup::ParentTask::ParentTask(TaskGroup& group, std::shared_ptr<TaskScheduler> scheduler,
                                  TaskPriority priority)
    : Task(std::move(scheduler), priority, group.schedulerName()), group_(&group) {
  isTaskGroupIs(true);
}

TaskGroup::ParentTask::~ParentTask() { handleDestroy(); }

void TaskGroup::ParentTask::taskExecute() {
  if (group_ == nullptr) return;
  if (const auto group = group_->weak_from_this().lock()) group_->runMembers(*this);
}

void TaskGroup::ParentTask::handleResetStats() {
  // During statsResetAsync() the walk visits the members itself.
  if (group_ == nullptr || group_->resetStatsInProgress()) return;
  if (const auto group = group_->weak_from_this().lock()) group->resetStats();
}

TaskGroup::TaskGroup(const String& name, TaskPriority priority, bool enforcePriority,
                     std::shared_ptr<TaskScheduler> parentScheduler)
    : TaskScheduler(name, checkedParent(parentScheduler)),
      parentTask_(std::allocate_shared<ParentTask>(Allocator<ParentTask>(), *this,
                                                   std::move(parentScheduler), priority)),
      taskGroupPriority_(priority),
      enforcePriority_(enforcePriority) {
  root()->registerScheduler(this);
}

TaskGroup::~TaskGroup() {
  parentTask_->group_ = nullptr;
  root()->unregisterScheduler(this);
}

void TaskGroup::requestSchedulerRun() {
  // Every run step of the group requests the next one. Mostly the parent task is scheduled already,
  // so test that first: it is cheaper than scheduleTask().
  if (!parentTask_->TaskImpl::taskScheduled()) parentTask_->scheduleTask();
}

void TaskGroup::handleTaskForceYieldInTest() {
  parentTask_->taskForceYieldInTestIs(forceYieldInTest_ || anyTaskForceYieldInTest());
}

void TaskGroup::taskRegister(TaskImpl* task) {
  TARVO_ASSERT(!enforcePriority_ || task->taskPriority() == taskGroupPriority_,
               "taskPriority( {} ) != taskGroupPriority( {} )", task->taskPriority(),
               taskGroupPriority_);
  TaskScheduler::taskRegister(task);
}

TaskTimeDuration TaskGroup::taskGroupQuantum() const { return parentTask_->taskQuantum(); }
void TaskGroup::taskGroupQuantumIs(TaskTimeDuration quantum) {
  parentTask_->taskQuantumIs(quantum);
}
void TaskGroup::taskGroupQuantumNoCheckIs(TaskTimeDuration quantum) {
  parentTask_->taskQuantumNoCheckIs(quantum);
}

const TaskImpl& TaskGroup::parentTask() const { return *parentTask_; }
unsigned int TaskGroup::parentTaskRunCount() const { return parentTask_->taskRunCount(); }
bool TaskGroup::parentTaskScheduled() const { return parentTask_->taskScheduled(); }

void TaskGroup::taskGroupForceYieldInTestIs(bool force) {
  sanityCheckCurrentRunningThread();
  forceYieldInTest_ = force;
  TaskGroup::handleTaskForceYieldInTest();
}

void TaskGroup::taskGroupRunFromTest() { parentTask_->taskRunFromTest(); }

void TaskGroup::runMembers(ParentTask& parent) {
  const bool multipleRuns = tasksPermittedMultipleRuns_;  // a member may change it
  unsigned int runs = 0;
  {
    const SingleRuns singleRuns(multipleRuns ? nullptr : this);
    runs = runPass(parent);
  }
  const std::uint64_t left = runnableTaskCount();
  parent.taskWorkCountInc(runs);
  parent.taskWorkPendingIs(static_cast<unsigned int>(left));
  if (left == 0) {
    schedulerHasRunnableTasksIs(false, TaskClock::now());
    parent.unscheduleTask();
    return;
  }
  if (!multipleRuns || root()->suspended()) {
    parent.scheduleTask();
    schedulerHasRunnableTasksIs(true, TaskClock::now());
    return;
  }
  // runStep() has requested the next step after the last member's run, so the parent is scheduled.
  TARVO_ASSERT(parent.taskScheduled() || parent.taskSuspended(),
               "TaskGroup parentTask should be scheduled.");
  TARVO_ASSERT(schedulerHasRunnableTasks(), "The TaskGroup should have runnable tasks");
}

unsigned int TaskGroup::runPass(ParentTask& parent) {
  unsigned int runs = 0;
  auto now = TaskClock::now();
  while (hasTaskToRun() && !root()->suspended()) {
    ++runs;
    now = runStep(now);
    if (parent.taskShouldYieldAt(now)) break;
  }
  return runs;
}

}  // namespace Tarvo
