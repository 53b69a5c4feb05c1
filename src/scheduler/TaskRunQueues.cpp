#include "Tarvo/TaskRunQueues.h"

#include "Tarvo/Assert.h"

namespace Tarvo {

void TaskRunQueue::enqueue(TaskImpl& task) {
  persistent_.push_back(task);
  ++queuedCount_;
}

void TaskRunQueue::withdraw(TaskImpl& task) {
  TaskList::unlink(task);
  --queuedCount_;
}

void TaskRunQueue::dequeue(TaskImpl& task) {
  ++consecutivePicks_;
  ++dequeuedCount_;
  if (dequeuedCount_ > queuedCount_) [[unlikely]]
    TARVO_ABORT("taskSchedulerUnlinkTask");
  TaskList::unlink(task);
}

void TaskRunQueue::checkTemporaryIsEmpty() const {
  TARVO_ASSERT(temporary_.empty(), "The temporary run queue should always be empty at this point");
}

void TaskRunQueue::movePersistentToTemporary() {
  checkTemporaryIsEmpty();
  temporary_.spliceFront(persistent_);
  usesTemporary_ = true;
}

void TaskRunQueue::moveTemporaryToPersistent() {
  persistent_.spliceFront(temporary_);
  checkTemporaryIsEmpty();
  usesTemporary_ = false;
}

namespace {

constexpr std::array<std::uint32_t, TaskPriority::oneBeyondLast> weights = {0, 64, 8, 1, 0};

}  // namespace

TaskImpl* TaskRunQueues::pickOneTask(unsigned from) {
  for (unsigned priority = from; priority < queues_.size(); ++priority) {
    TaskRunQueue& queue = queues_[priority];
    TaskImpl* candidate = queue.first();
    if (candidate == nullptr) {
      queue.consecutivePicksReset();
      continue;
    }
    if (attemptLowerPriorityBump(priority, queue.consecutivePicks())) {
      if (TaskImpl* lower = pickOneTask(priority + 1)) {
        queue.consecutivePicksReset();
        return lower;
      }
    }
    queue.dequeue(*candidate);
    return candidate;
  }
  return nullptr;
}

bool TaskRunQueues::attemptLowerPriorityBump(unsigned priority,
                                             std::uint32_t consecutivePicks) const {
  if (priority != TaskPriority::high && priority != TaskPriority::normal) return false;
  std::uint32_t waiting = 0;
  for (unsigned lower = priority + 1; lower <= TaskPriority::low; ++lower) {
    waiting += weights[lower] * static_cast<std::uint32_t>(queues_[lower].runnableCount());
  }
  if (waiting == 0) return false;
  const auto runnable = static_cast<std::uint32_t>(queues_[priority].runnableCount());
  return waiting * consecutivePicks > runnable * weights[priority];
}

bool TaskRunQueues::anyInCurrentLists() const {
  for (const TaskRunQueue& queue : queues_) {
    if (queue.first() != nullptr) return true;
  }
  return false;
}

std::uint64_t TaskRunQueues::runnableCount() const {
  return runnableCountUpTo(TaskPriority::oneBeyondLast);
}

std::uint64_t TaskRunQueues::runnableCountUpTo(unsigned priority) const {
  std::uint64_t sum = 0;
  for (unsigned urgent = 0; urgent <= priority && urgent < queues_.size(); ++urgent) {
    sum += queues_[urgent].runnableCount();
  }
  return sum;
}

void TaskRunQueues::movePersistentToTemporary() {
  for (const TaskRunQueue& queue : queues_) queue.checkTemporaryIsEmpty();  // all or none
  for (TaskRunQueue& queue : queues_) queue.movePersistentToTemporary();
}

void TaskRunQueues::moveTemporaryToPersistent() {
  for (TaskRunQueue& queue : queues_) queue.moveTemporaryToPersistent();
}

}  // namespace Tarvo
