#ifndef TARVO_SRC_REPORTS_STATSWALK_H
#define TARVO_SRC_REPORTS_STATSWALK_H

#include <cstdint>
#include <map>
#include <utility>

#include "Tarvo/List.h"
#include "Tarvo/TaskScheduler.h"
#include "scheduler/TaskNameIndex.h"

namespace Tarvo {

/// Goes through everything that a root keeps figures of: each scheduler, then its tasks, then its
/// records of completed tasks. It may stop after every step and go on later: what comes and goes
/// meanwhile does no harm. What comes is not visited, so that a walk has an end. What ends is
/// counted once: with the completed when its turn as a task had not come, otherwise as the task
/// that it was.
class StatsWalk : private TaskNameIndex::Watcher {
 public:
  enum class At : std::uint8_t { scheduler, task, completed, end };

  explicit StatsWalk(const TaskSchedulerRoot& root)
      : root_(root), newestTask_(root.newestTaskKey()) {}

  /// Moves on. What the accessors below refer to is valid until anything else happens.
  At next();
  At at() const { return at_; }
  TaskScheduler& scheduler() const { return *scheduler_; }
  TaskImpl& task() const { return *task_; }
  /// Without the tasks that ended after their turn.
  const TaskStat& completed() const;

  /// Sets what the walk stands at back to the start. Of a record those tasks are left.
  void reset();

 private:
  /// A record to which tasks were added that had had their turn, or are newer than the walk.
  struct Parts {
    TaskStat before;  // without them
    TaskStat later;   // they alone
  };
  using RecordKey = std::pair<const ConstStringRef::Elem*, TaskPriority>;

  void completing(const TaskNameIndex::Completed& record, const TaskStat& finished) override;
  void forgetting() override { parts_.clear(); }
  const Parts* partsOf(const TaskStat& stat) const;
  bool isToVisit(const TaskNameIndex::Completed& record) const;
  bool enterNextScheduler();
  bool stillThere() const { return root_.schedulers().contains(scheduler_); }

  const TaskSchedulerRoot& root_;
  TaskKey newestTask_;
  TaskKey lastTask_;                  // of this scheduler: those up to it have had their turn
  std::map<RecordKey, Parts> parts_;  // of this scheduler's records
  At at_ = At::end;
  TaskScheduler* scheduler_ = nullptr;
  TaskImpl* task_ = nullptr;
  TaskNameIndex::Completed* completed_ = nullptr;
  // In front of what comes next; out of their lists when those are gone.
  BookmarkListLinkNode nextTask_{BookmarkListLinkNode::bookmark};
  BookmarkListLinkNode nextCompleted_{BookmarkListLinkNode::bookmark};
};

}  // namespace Tarvo

#endif
