#include "Tarvo/Task.h"

#include <ostream>
#include <utility>

#include "Tarvo/Assert.h"
#include "Tarvo/TaskScheduler.h"

namespace Tarvo {

namespace {

/// Checks the arguments before the first member is initialised: the names are interned in the
/// scheduler's cache, which needs a scheduler and the right thread.
std::shared_ptr<TaskScheduler> checked(std::shared_ptr<TaskScheduler> scheduler,
                                       TaskPriority priority, const String& name) {
  TARVO_ASSERT(scheduler != nullptr, "Need a TaskScheduler");
  scheduler->sanityCheckCurrentRunningThread();
  if (priority >= TaskPriority::oneBeyondLast) {
    TARVO_ABORT("Task: {} has priority {}, which is none", name, unsigned{priority});
  }
  return scheduler;
}

}  // namespace

_TaskBase::_TaskBase(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                     const String& name)
    : TaskHome{checked(std::move(scheduler), priority, name)},
      taskName_(taskScheduler_->constStringCache(), name),
      taskStatsName_(taskName_),
      taskPriority_(priority) {}

_TaskBase::~_TaskBase() = default;

void _TaskBase::taskStatsNameIs(String name) {
  taskScheduler_->sanityCheckCurrentRunningThread();
  taskStatsName_ = ConstStringRef(taskScheduler_->constStringCache(), name);
}

const String& _TaskBase::taskLabel() const {
  if (!taskLabel_) {
    taskLabel_ = ConstStringRef(taskScheduler_->constStringCache(),
                                taskPriority_.oneCharString() + " " + taskName());
  }
  return taskLabel_.text();
}

void _TaskBase::handleTaskBusy() {}
void _TaskBase::handleResetStats() {}

std::ostream& operator<<(std::ostream& out, const _TaskBase& task) {
  if (task.taskLabel_ || out.width() != 0) return out << task.taskLabel();
  return out << task.taskPriority_.oneChar() << ' ' << task.taskName();
}

Task::Task(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, String name)
    : TaskImpl(std::move(scheduler), priority, name) {}

Task::Task(TaskScheduler* scheduler, TaskPriority priority, String name)
    : Task(scheduler == nullptr ? nullptr : scheduler->shared_from_this(), priority,
           std::move(name)) {}

Task::~Task() { handleDestroy(); }

bool Task::taskScheduled() const { return TaskImpl::taskScheduled(); }
void Task::scheduleTask() { TaskImpl::scheduleTask(); }
void Task::taskRunFromTest() { TaskImpl::taskRunFromTest(); }
TaskStat::TaskStatus Task::taskStatus() const { return TaskImpl::taskStatus(); }

}  // namespace Tarvo
