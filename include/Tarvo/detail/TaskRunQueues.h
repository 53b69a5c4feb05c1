#ifndef TARVO_DETAIL_TASKRUNQUEUES_H
#define TARVO_DETAIL_TASKRUNQUEUES_H

/// The run queues of one scheduler and the choice of the next task.
///
/// How the next task is chosen:
/// 1. The first task of the most urgent queue that has one is the candidate.
/// 2. The starvation guard may pick a less urgent task before it: see attemptLowerPriorityBump().
/// 3. Tasks of one priority take turns in the order in which they were scheduled.
///
/// All operations take constant time and allocate nothing.

#include <array>
#include <cstdint>

#include "Tarvo/Export.h"
#include "Tarvo/List.h"
#include "Tarvo/Task.h"
#include "Tarvo/TaskStat.h"
#include "Tarvo/detail/Check.h"

namespace Tarvo {

/// The queue of one priority. Tasks are queued in the persistent list. A pass that runs each task
/// at most once first moves them to a second, temporary list and then picks from that; tasks that
/// are scheduled during the pass stay in the persistent list.
class TARVO_EXPORT TaskRunQueue {
 public:
  TaskRunQueue() = default;
  TaskRunQueue(const TaskRunQueue&) = delete;
  TaskRunQueue& operator=(const TaskRunQueue&) = delete;

  /// Appends a task that is in no queue.
  void enqueue(TaskImpl& task);
  /// Removes a task that was unscheduled.
  void withdraw(TaskImpl& task);
  /// Removes a task to run it; ends the process when the counts say that the queue is empty.
  void dequeue(TaskImpl& task);

  /// The next task, null without one; it stays queued.
  TaskImpl* first() const { return currentList().first(); }

  /// These fail an assertion when the temporary list should be empty and is not.
  void checkTemporaryIsEmpty() const;
  void movePersistentToTemporary();
  void moveTemporaryToPersistent();

  /// How many tasks were picked from this queue since a less urgent one was last let through.
  std::uint32_t consecutivePicks() const { return consecutivePicks_; }
  void consecutivePicksReset() { consecutivePicks_ = 0; }

  /// The number of tasks in both lists, and of tasks picked to run so far.
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

  /// Throws std::out_of_range when the priority is not valid.
  TaskRunQueue& queue(TaskPriority priority) { return queues_.at(priority); }
  const TaskRunQueue& queue(TaskPriority priority) const { return queues_.at(priority); }

  /// Picks the next task among those of priority `from` and less urgent ones, and removes it from
  /// its queue; null when there is none.
  TaskImpl* pickOneTask(unsigned from = TaskPriority::absolute);
  /// The starvation guard: whether a less urgent task runs before the next one of `priority`, after
  /// `consecutivePicks` tasks of that priority in a row. Only high and normal tasks can be delayed
  /// this way, and only high, normal and low ones count. With the weights 64, 8 and 1, a less
  /// urgent task is due when
  ///     (sum over the less urgent of weight * runnable) * consecutivePicks > runnable * weight
  /// in 32-bit unsigned arithmetic.
  bool attemptLowerPriorityBump(unsigned priority, std::uint32_t consecutivePicks) const;

  /// Whether pickOneTask() would find a task.
  bool anyInCurrentLists() const;
  std::uint64_t runnableCount() const;
  /// The runnable tasks of that priority and of more urgent ones.
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
    TARVO_CHECK_FAILED("taskSchedulerUnlinkTask");
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
