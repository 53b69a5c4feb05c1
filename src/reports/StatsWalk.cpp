#include "reports/StatsWalk.h"

#include <iterator>

namespace Tarvo {

namespace {

/// The element behind a bookmark, which moves on; null at the end or without a list.
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
  const auto& all = root_.schedulers();
  const auto found = all.upper_bound(scheduler_);
  if (found == all.end()) return false;
  scheduler_ = *found;
  scheduler_->registeredTasks_.insertBefore(nextTask_, scheduler_->registeredTasks_.begin());
  TaskNameIndex::CompletedList& completed = scheduler_->nameIndex_->completed();
  completed.insertBefore(nextCompleted_, completed.begin());
  recordsLeft_ = 0;
  for (const auto& [priority, count] : scheduler_->completedTasksPerPriority_) {
    recordsLeft_ += count;
  }
  return true;
}

StatsWalk::At StatsWalk::next() {
  if (scheduler_ != nullptr && stillThere()) {
    // Tasks stand in the order of their keys.
    task_ = pass(nextTask_, scheduler_->registeredTasks_);
    if (task_ != nullptr && task_->taskKey() <= newestTask_) return at_ = At::task;
    if (nextTask_.isLinked()) nextTask_.unlink();
    completed_ = pass(nextCompleted_, scheduler_->nameIndex_->completed());
    if (completed_ != nullptr && recordsLeft_-- > 0) return at_ = At::completed;
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
      scheduler_->completedTasksPerPriorityDec(completed_->stat.taskPriority());
      scheduler_->nameIndex_->eraseCompleted(*completed_);
      break;
    case At::end:
      break;
  }
}

}  // namespace Tarvo
