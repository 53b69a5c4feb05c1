#include "Tarvo/TaskScheduler.h"

#include <algorithm>
#include <ostream>
#include <utility>

#include "Tarvo/TaskSchedulerHistory.h"
#include "platform/libevent/DeferredFdControl.h"
#include "platform/libevent/ThreadLoop.h"
#include "scheduler/SchedulerTrace.h"
#include "scheduler/TaskNameIndex.h"

namespace Tarvo {

using Impl::taskSchedulerTrace;

TaskScheduler::TaskScheduler(const String& name, TaskSchedulerRoot* root,
                             const ThreadCheck& threadCheck,
                             std::shared_ptr<TaskSchedulerHistory> history)
    : schedulerName_(name),
      root_(root),
      threadCheck_(&threadCheck),
      history_(std::move(history)),
      nameIndex_(std::make_unique<TaskNameIndex>(history_->cache())),
      lastRunRequestTime_(TaskClock::now()),
      nameCache_(history_, &history_->cache()),
      schedulerNameRef_(*nameCache_, name) {
  for (unsigned number = 0; number < TaskPriority::oneBeyondLast; ++number) {
    const TaskPriority priority(static_cast<std::uint8_t>(number));
    tasksPerPriority_[priority] = 0;
    completedTasksPerPriority_[priority] = 0;
  }
}

TaskScheduler::TaskScheduler(const String& name, const TaskScheduler& parent)
    : TaskScheduler(name, parent.root_, *parent.threadCheck_, parent.history_) {
  defaultTaskQuantum_ = parent.defaultTaskQuantum_;
  nameIndex_->completedMaxIs(parent.completedTaskRecordsMax());
}

TaskScheduler::~TaskScheduler() = default;

void TaskScheduler::recordEvent(TaskClock::time_point now, TaskSchedulerEventType type) const {
  history_->insert(now, type, this);
}

bool TaskScheduler::resetStatsInProgress() const { return root_->resetStatsInProgress(); }

void TaskScheduler::taskRegister(TaskImpl* task) {
  sanityCheckCurrentRunningThread();
  if (task->taskPriority() >= TaskPriority::oneBeyondLast) {
    TARVO_ABORT("Task: {} has priority {}, which is none", *task, unsigned{task->taskPriority()});
  }
  TARVO_TRACE(taskSchedulerTrace, 3, "{} Register {}", *this, *task);
  if (task->taskScheduler().get() != this) TARVO_ABORT("Task: {} has another scheduler", *task);
  if (task->taskRegisteredLink_.isLinked()) TARVO_ABORT("Task: {} already registered", *task);
  nameIndex_->add(*task);  // first, as nothing after it throws
  task->recordEvent(TaskClock::now(), TaskSchedulerEventType::create);
  registeredTasks_.push_back(*task);
  tasksPerPriorityInc(task->taskPriority());
}

void TaskScheduler::taskUnregister(TaskImpl* task) {
  sanityCheckCurrentRunningThread();
  TARVO_TRACE(taskSchedulerTrace, 3, "{} Unregister {}", *this, *task);
  if (task->taskOnRunQueue()) TARVO_ABORT("Task: {} scheduled on unregister", *task);
  if (!task->taskRegisteredLink_.isLinked() || task->taskScheduler().get() != this) {
    TARVO_ABORT("Task: {} not registered", *task);
  }
  task->recordEvent(TaskClock::now(), TaskSchedulerEventType::delete_);
  RegisteredTasks::unlink(*task);
  tasksPerPriorityDec(task->taskPriority());
  if (task->includeInCompletedTask()) {
    try {
      updateCompletedTaskStats(task->getStats());
    } catch (const std::bad_alloc&) {  // must not leave: destructors call this
      TARVO_TRACE(taskSchedulerTrace, 1, "{} No memory for the figures of {}", *this, *task);
    }
  }
  nameIndex_->remove(*task);
}

void TaskScheduler::updateCompletedTaskStats(const TaskStat& finished) {
  if (nameIndex_->addCompleted(finished)) completedTasksPerPriorityInc(finished.taskPriority());
}

unsigned int TaskScheduler::completedTaskRecordsMax() const { return nameIndex_->completedMax(); }

void TaskScheduler::completedTaskRecordsMaxIs(unsigned int most) {
  sanityCheckCurrentRunningThread();
  nameIndex_->completedMaxIs(most);
  countCompletedTasks();
}

void TaskScheduler::countCompletedTasks() {
  for (auto& [priority, count] : completedTasksPerPriority_) count = 0;
  for (const TaskNameIndex::Completed& record : nameIndex_->completed()) {
    completedTasksPerPriorityInc(record.stat.taskPriority());
  }
}

void TaskScheduler::resetStats() {
  sanityCheckCurrentRunningThread();
  lastSchedulerLatency_ = 0;
  maxSchedulerSlip_ = 0;
  // A task's hook may destroy any task, so a bookmark keeps the place, not an iterator.
  BookmarkListLinkNode place(BookmarkListLinkNode::bookmark);
  registeredTasks_.insertBefore(place, registeredTasks_.begin());
  while (true) {
    const RegisteredTasks::Iterator next(registeredTasks_, place);
    if (next == registeredTasks_.end()) break;
    TaskImpl& task = *next;
    place.unlink();
    registeredTasks_.insertBefore(place, std::next(next));
    task.resetStats();
  }
  nameIndex_->forgetCompleted();  // last: the hooks may have added records of destroyed tasks
  countCompletedTasks();
}

void TaskScheduler::requestNextRun(TaskClock::time_point now) {
  lastRunRequestTime_ = now;
  try {
    requestSchedulerRun();
  } catch (...) {
    hasRunnableTasks_ = false;  // so that the next scheduleTask() requests a run
    throw;
  }
}

// Invariant: while hasRunnableTasks_ is true, a run step has been requested or is in progress. So
// only the first scheduleTask() after an idle time requests one; each step requests the next, and
// the step that finds no task clears the flag.
void TaskScheduler::schedulerHasRunnableTasksIs(bool runnable, TaskClock::time_point now) {
  if (runnable == hasRunnableTasks_) return;
  hasRunnableTasks_ = runnable;
  if (!runnable) {
    recordEvent(now, TaskSchedulerEventType::schedulerIdle);
    TARVO_TRACE(taskSchedulerTrace, 8, "{} Scheduler idle", *this);
    return;
  }
  TARVO_TRACE(taskSchedulerTrace, 8, "{} Scheduler has runnable tasks, request run", *this);
  recordEvent(now, TaskSchedulerEventType::schedulerRunnable);
  requestNextRun(now);
}

void TaskScheduler::checkSchedulerLatency(TaskClock::time_point now) {
  lastSchedulerLatency_ = nanoseconds(now - lastRunRequestTime_);
  maxSchedulerSlip_ = std::max(maxSchedulerSlip_, lastSchedulerLatency_);
}

TaskImpl* TaskScheduler::pickOneTask(TaskClock::time_point now, unsigned from) {
  TaskImpl* task = runQueues_.pickOneTask(from);
  if (task != nullptr) task->schedulingLatencyIs(now);
  return task;
}

void TaskScheduler::handleSchedulerRun() {
  sanityCheckCurrentRunningThread();
  runStep(TaskClock::now());
}

TaskClock::time_point TaskScheduler::runStep(TaskClock::time_point now) {
  // The task may hold the last reference to this scheduler. So `done` is declared first and
  // destroyed last: nothing may touch the scheduler after it.
  std::shared_ptr<_TaskBase> done;
  // Polls that were put off are counted in steps of the root. All steps of a group are part of one
  // step of the root, hence the test.
  struct EndOfStep {
    ~EndOfStep() {
      if (Impl::anyPollPending() && &scheduler == root) Impl::endRootStep(root->nextUrgency());
    }
    const TaskScheduler& scheduler;
    const TaskSchedulerRoot* root;
  } const endOfStep{*this, root_};
  TARVO_ASSERT(currentlyRunning_.task == nullptr, "{} is in the middle of running {}", *this,
               *currentlyRunning_.task);
  checkSchedulerLatency(now);
  if (root_->suspended()) {
    TARVO_TRACE(taskSchedulerTrace, 8, "{} Suspended", *this);
    recordEvent(now, TaskSchedulerEventType::schedulerRunIgnoredWhileSuspended);
    return now;
  }
  TaskImpl* task = pickOneTask(now);
  if (task == nullptr) {
    schedulerHasRunnableTasksIs(false, now);
    return now;
  }
  TaskClock::time_point end;
  try {
    currentlyRunning_.task = task->shared_from_this();
    currentlyRunning_.key = task->taskKey();
    end = task->taskDoRun(now);
    TARVO_TRACE(taskSchedulerTrace, 8, "{} Scheduler completed task, request run", *this);
    requestNextRun(end);
  } catch (...) {
    // The exception still passes through frames of this scheduler on its way to the loop, so the
    // task, which may hold the scheduler alive, is kept until the loop has returned.
    done = std::exchange(currentlyRunning_, {}).task;
    Impl::ThreadLoop::own().keepObject(kept_, done);
    requestNextRun(TaskClock::now());  // for the other tasks; if there are none, that step says so
    throw;
  }
  done = std::move(currentlyRunning_.task);
  currentlyRunning_.key = TaskKey();
  return end;
}

std::uint64_t TaskScheduler::tasksAhead(TaskPriority priority) const {
  if (root_->currentlyRunningTask() == nullptr || root_->suspended()) return 0;
  return runQueues_.runnableCountUpTo(priority);
}

unsigned int TaskScheduler::tasksPerPriority(TaskPriority priority) const {
  return tasksPerPriority_.at(priority);
}

unsigned int TaskScheduler::completedTasksPerPriority(TaskPriority priority) const {
  return completedTasksPerPriority_.at(priority);
}

TaskSchedulerQueueStats TaskScheduler::queueStats() const {
  TaskSchedulerQueueStats stats;
  for (const auto& [priority, registered] : tasksPerPriority_) {
    const auto runnable = static_cast<unsigned int>(runnableTaskCount(priority));
    stats.try_emplace(priority, priority, runnable, registered - runnable,
                      completedTasksPerPriority(priority),
                      static_cast<unsigned int>(runTaskCount(priority)));
  }
  return stats;
}

void TaskScheduler::taskForceYieldInTestNotify(const TaskImpl* task, bool force) {
  const bool wasEmpty = forceYieldTasks_.empty();
  if (force) {
    forceYieldTasks_.insert(task);
  } else {
    forceYieldTasks_.erase(task);
  }
  if (forceYieldTasks_.empty() != wasEmpty) handleTaskForceYieldInTest();
}

TaskImpl* TaskScheduler::taskForTest(const String& name) const {
  return nameIndex_->task(nameCache_->find(name));
}

std::optional<TaskStat> TaskScheduler::taskStatForTest(const String& name) const {
  const TaskImpl* task = taskForTest(name);
  return task == nullptr ? std::nullopt : std::optional(task->getStats());
}

std::optional<TaskStat> TaskScheduler::completedTaskStatForTest(const String& name) const {
  const TaskStat* record = nameIndex_->completed(nameCache_->find(name));
  return record == nullptr ? std::nullopt : std::optional(*record);
}

TaskScheduler* TaskScheduler::findSchedulerForTest(const String& name) const {
  for (TaskScheduler* scheduler : root_->schedulers()) {
    if (scheduler->schedulerName() == name) return scheduler;
  }
  return nullptr;
}

std::ostream& operator<<(std::ostream& out, const TaskScheduler& scheduler) {
  return out << scheduler.schedulerName();
}

}  // namespace Tarvo
