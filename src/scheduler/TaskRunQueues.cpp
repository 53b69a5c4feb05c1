#include "Tarvo/detail/TaskRunQueues.h"

#include "Tarvo/Assert.h"

namespace Tarvo {

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

TaskImpl* TaskRunQueues::pickOneTask(unsigned from) {
  for (unsigned priority = from; priority < queues_.size(); ++priority) {
    TaskRunQueue& queue = queues_[priority];
    TaskImpl* candidate = queue.first();
    if (candidate == nullptr) {
      queue.consecutivePicksReset();
      continue;
    }
    // The starvation guard. The recursion applies it again among the less urgent queues.
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
  for (const TaskRunQueue& queue : queues_) queue.checkTemporaryIsEmpty();  // before any is moved
  for (TaskRunQueue& queue : queues_) queue.movePersistentToTemporary();
}

void TaskRunQueues::moveTemporaryToPersistent() {
  for (TaskRunQueue& queue : queues_) queue.moveTemporaryToPersistent();
}

}  // namespace Tarvo
