#include "reports/StatsWalk.h"

#include <iterator>
#include <new>

namespace Tarvo {

namespace {

/// Moves a bookmark behind the next element and returns that element; null at the end, and when the
/// bookmark is in no list.
template <typename List>
auto* pass(BookmarkListLinkNode& bookmark, List& list) {
  using Element = std::remove_reference_t<decltype(*list.begin())>;
  if (!bookmark.isLinked()) return static_cast<Element*>(nullptr);
  const typename List::Iterator next(list, bookmark);
  if (next == list.end()) return static_cast<Element*>(nullptr);
  bookmark.unlink();
  list.insertBefore(bookmark, std::next(next));
  return &*next;
}

}  // namespace

bool StatsWalk::enterNextScheduler() {
  if (nextTask_.isLinked()) nextTask_.unlink();
  if (nextCompleted_.isLinked()) nextCompleted_.unlink();
  if (watcherLink.isLinked()) watcherLink.unlink();
  parts_.clear();
  lastTask_ = TaskKey();
  const auto& all = root_.schedulers();
  const auto found = all.upper_bound(scheduler_);
  if (found == all.end()) return false;
  scheduler_ = *found;
  scheduler_->registeredTasks_.insertBefore(nextTask_, scheduler_->registeredTasks_.begin());
  TaskNameIndex::CompletedList& completed = scheduler_->nameIndex_->completed();
  completed.insertBefore(nextCompleted_, completed.begin());
  scheduler_->nameIndex_->watch(*this);
  return true;
}

void StatsWalk::completing(const TaskNameIndex::Completed& record, const TaskStat& finished) {
  const bool hasHadTurn = finished.taskKey() <= lastTask_ || finished.taskKey() > newestTask_;
  const RecordKey key(finished.taskNameRef().elem(), finished.taskPriority());
  auto parts = parts_.find(key);
  if (hasHadTurn) {
    if (parts == parts_.end()) {
      try {
        parts = parts_.try_emplace(key, Parts{record.stat, {}}).first;
      } catch (const std::bad_alloc&) {  // this walk counts the task twice; the record stays exact
        return;
      }
    }
    TaskNameIndex::merge(parts->second.later, finished);
  } else if (parts != parts_.end()) {
    TaskNameIndex::merge(parts->second.before, finished);
  }
}

const StatsWalk::Parts* StatsWalk::partsOf(const TaskStat& stat) const {
  const auto parts = parts_.find({stat.taskNameRef().elem(), stat.taskPriority()});
  return parts == parts_.end() ? nullptr : &parts->second;
}

/// False for a record that had no tasks in it when the walk passed their turn.
bool StatsWalk::isToVisit(const TaskNameIndex::Completed& record) const {
  const Parts* parts = partsOf(record.stat);
  return parts == nullptr || parts->before.taskCompletedCount() != 0;
}

const TaskStat& StatsWalk::completed() const {
  const Parts* parts = partsOf(completed_->stat);
  return parts == nullptr ? completed_->stat : parts->before;
}

StatsWalk::At StatsWalk::next() {
  if (scheduler_ != nullptr && stillThere()) {
    // The list is sorted by key, since tasks are registered when they are made. So a key above
    // newestTask_ means that all older tasks have been visited.
    task_ = pass(nextTask_, scheduler_->registeredTasks_);
    if (task_ != nullptr && task_->taskKey() <= newestTask_) {
      lastTask_ = task_->taskKey();
      return at_ = At::task;
    }
    if (nextTask_.isLinked()) nextTask_.unlink();
    lastTask_ = newestTask_;
    do {
      completed_ = pass(nextCompleted_, scheduler_->nameIndex_->completed());
    } while (completed_ != nullptr && !isToVisit(*completed_));
    if (completed_ != nullptr) return at_ = At::completed;
  }
  return at_ = enterNextScheduler() ? At::scheduler : At::end;
}

void StatsWalk::reset() {
  switch (at_) {
    case At::scheduler:
      scheduler_->lastSchedulerLatency_ = 0;
      scheduler_->maxSchedulerSlip_ = 0;
      break;
    case At::task:
      task_->resetStats();
      break;
    case At::completed:
      if (const Parts* parts = partsOf(completed_->stat)) {
        completed_->stat = parts->later;
        break;
      }
      scheduler_->completedTasksPerPriorityDec(completed_->stat.taskPriority());
      scheduler_->nameIndex_->eraseCompleted(*completed_);
      break;
    case At::end:
      break;
  }
}

}  // namespace Tarvo
