#ifndef TARVO_SRC_REPORTS_STATSWALK_H
#define TARVO_SRC_REPORTS_STATSWALK_H

#include <cstdint>

#include "Tarvo/List.h"
#include "Tarvo/TaskScheduler.h"
#include "scheduler/TaskNameIndex.h"

namespace Tarvo {

/// Goes through everything that a root keeps figures of: each scheduler, then its tasks, then its
/// records of completed tasks. It may stop after every step and go on later: what comes and goes
/// meanwhile does no harm. What comes is not visited, so that a walk has an end.
class StatsWalk {
 public:
  enum class At : std::uint8_t { scheduler, task, completed, end };

  explicit StatsWalk(const TaskSchedulerRoot& root)
      : root_(root), newestTask_(root.newestTaskKey()) {}

  /// Moves on. What the accessors below refer to is valid until anything else happens.
  At next();
  At at() const { return at_; }
  TaskScheduler& scheduler() const { return *scheduler_; }
  TaskImpl& task() const { return *task_; }
  const TaskStat& completed() const { return completed_->stat; }

  /// Sets what the walk stands at back to the start.
  void reset();

 private:
  bool enterNextScheduler();
  bool stillThere() const { return root_.schedulers().contains(scheduler_); }

  const TaskSchedulerRoot& root_;
  TaskKey newestTask_;
  std::size_t recordsLeft_ = 0;  // of this scheduler, as many as there were
  At at_ = At::end;
  TaskScheduler* scheduler_ = nullptr;
  TaskImpl* task_ = nullptr;
  const TaskNameIndex::Completed* completed_ = nullptr;
  // In front of what comes next; out of their lists when those are gone.
  BookmarkListLinkNode nextTask_{BookmarkListLinkNode::bookmark};
  BookmarkListLinkNode nextCompleted_{BookmarkListLinkNode::bookmark};
};

}  // namespace Tarvo

#endif
