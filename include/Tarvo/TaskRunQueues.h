#ifndef TARVO_TASKRUNQUEUES_H
#define TARVO_TASKRUNQUEUES_H

/// The run queues of one scheduler and the choice of the next task.
///
/// How the next task is chosen:
/// 1. The first task of the most urgent queue that has one is the candidate.
/// 2. The starvation guard may let one less urgent task go before it: see
/// attemptLowerPriorityBump().
/// 3. Tasks of one priority take turns in the order in which they were scheduled.
///
/// All operations take constant time and allocate nothing.

#include <array>
#include <cstdint>

#include "Tarvo/Assert.h"
#include "Tarvo/Export.h"
#include "Tarvo/List.h"
#include "Tarvo/Task.h"
#include "Tarvo/TaskStat.h"

namespace Tarvo {

/// The queue of one priority. A pass that runs each task at most once moves what is queued to a
/// second, temporary list, from which it then picks; what is scheduled meanwhile waits in the
/// persistent one.
class TARVO_EXPORT TaskRunQueue {
 public:
  TaskRunQueue() = default;
  TaskRunQueue(const TaskRunQueue&) = delete;
  TaskRunQueue& operator=(const TaskRunQueue&) = delete;

  /// Appends a task that is in no queue.
  void enqueue(TaskImpl& task);
  /// Takes a task out that shall not run after all.
  void withdraw(TaskImpl& task);
  /// Takes a task out to run it; ends the process when the counts do not allow one.
  void dequeue(TaskImpl& task);

  /// The next task, null without one; it stays queued.
  TaskImpl* first() const { return currentList().first(); }

  /// All fail an assertion when the temporary list is not empty where it must be.
  void checkTemporaryIsEmpty() const;
  void movePersistentToTemporary();
  void moveTemporaryToPersistent();

  /// Tasks taken in a row without a less urgent one being let through.
  std::uint32_t consecutivePicks() const { return consecutivePicks_; }
  void consecutivePicksReset() { consecutivePicks_ = 0; }

  /// Tasks in both lists, and tasks ever taken out to run.
  std::uint64_t runnableCount() const { return queuedCount_ - dequeuedCount_; }
  std::uint64_t dequeuedCount() const { return dequeuedCount_; }

 private:
  friend class TaskImpl;
  using TaskList = List<TaskImpl, &TaskImpl::taskRunQueueLink_>;

  const TaskList& currentList() const { return usesTemporary_ ? temporary_ : persistent_; }

  TaskList persistent_;
  TaskList temporary_;
  bool usesTemporary_ = false;
  std::uint32_t consecutivePicks_ = 0;
  std::uint64_t queuedCount_ = 0;
  std::uint64_t dequeuedCount_ = 0;
};

class TARVO_EXPORT TaskRunQueues {
 public:
  using TaskRunQueue = Tarvo::TaskRunQueue;

  /// Throws std::out_of_range when the priority is none.
  TaskRunQueue& queue(TaskPriority priority) { return queues_.at(priority); }
  const TaskRunQueue& queue(TaskPriority priority) const { return queues_.at(priority); }

  /// Chooses the next task, among those of priority `from` and less urgent ones, and takes it out
  /// of its queue; null without one.
  TaskImpl* pickOneTask(unsigned from = TaskPriority::absolute);
  /// Whether a task of a lower priority goes before the next of `priority`, of which
  /// `consecutivePicks` were served in a row. Only high and normal tasks can be held up so, and
  /// only high, normal and low ones count: with the weights 64, 8 and 1, one goes ahead when
  ///     (sum over the lower of weight * runnable) * consecutivePicks > runnable * weight
  /// in 32-bit unsigned arithmetic.
  bool attemptLowerPriorityBump(unsigned priority, std::uint32_t consecutivePicks) const;

  bool anyInCurrentLists() const;
  std::uint64_t runnableCount() const;
  /// Of that priority and more urgent ones.
  std::uint64_t runnableCountUpTo(unsigned priority) const;

  void movePersistentToTemporary();
  void moveTemporaryToPersistent();

 private:
  std::array<TaskRunQueue, TaskPriority::oneBeyondLast> queues_;
};

inline void TaskRunQueue::enqueue(TaskImpl& task) {
  persistent_.push_back(task);
  ++queuedCount_;
}

inline void TaskRunQueue::withdraw(TaskImpl& task) {
  TaskList::unlink(task);
  --queuedCount_;
}

inline void TaskRunQueue::dequeue(TaskImpl& task) {
  ++consecutivePicks_;
  ++dequeuedCount_;
  if (dequeuedCount_ > queuedCount_) [[unlikely]]
    TARVO_ABORT("taskSchedulerUnlinkTask");
  TaskList::unlink(task);
}

inline bool TaskRunQueues::attemptLowerPriorityBump(unsigned priority,
                                                    std::uint32_t consecutivePicks) const {
  if (priority != TaskPriority::high && priority != TaskPriority::normal) return false;
  constexpr std::array<std::uint32_t, TaskPriority::oneBeyondLast> weights = {0, 64, 8, 1, 0};
  std::uint32_t waiting = 0;
  for (unsigned lower = priority + 1; lower <= TaskPriority::low; ++lower) {
    waiting += weights[lower] * static_cast<std::uint32_t>(queues_[lower].runnableCount());
  }
  if (waiting == 0) return false;
  const auto runnable = static_cast<std::uint32_t>(queues_[priority].runnableCount());
  return waiting * consecutivePicks > runnable * weights[priority];
}

}  // namespace Tarvo

#endif
