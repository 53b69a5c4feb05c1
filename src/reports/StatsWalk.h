#ifndef TARVO_SRC_REPORTS_STATSWALK_H
#define TARVO_SRC_REPORTS_STATSWALK_H

#include <cstdint>
#include <map>
#include <utility>

#include "Tarvo/List.h"
#include "Tarvo/TaskScheduler.h"
#include "scheduler/TaskNameIndex.h"

namespace Tarvo {

/// Visits everything that a root keeps figures of: each scheduler, then its tasks, then its records
/// of completed tasks. The walk may pause after every step. Tasks may be made and destroyed between
/// steps. New ones are skipped, so the walk terminates. A task that finishes during the walk is
/// counted once: in its completed record if the walk had not visited it yet, otherwise as the task
/// that it was.
class StatsWalk : private TaskNameIndex::Watcher {
 public:
  enum class At : std::uint8_t { scheduler, task, completed, end };

  explicit StatsWalk(const TaskSchedulerRoot& root)
      : root_(root), newestTask_(root.newestTaskKey()) {}

  /// Makes a step. The objects that the accessors below return are valid only until other code
  /// runs.
  At next();
  At at() const { return at_; }
  TaskScheduler& scheduler() const { return *scheduler_; }
  TaskImpl& task() const { return *task_; }
  /// The record's figures without the tasks that finished after the walk had visited them.
  const TaskStat& completed() const;

  /// Resets the object that the walk is at. A record keeps the figures that completed() leaves out.
  void reset();

 private:
  /// The two parts of a record to which tasks were added that the walk had visited already, or that
  /// are newer than the walk.
  struct Parts {
    TaskStat before;  // without those tasks
    TaskStat later;   // those tasks alone
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
  TaskKey lastTask_;                  // tasks of this scheduler up to this key were visited
  std::map<RecordKey, Parts> parts_;  // for records of this scheduler
  At at_ = At::end;
  TaskScheduler* scheduler_ = nullptr;
  TaskImpl* task_ = nullptr;
  TaskNameIndex::Completed* completed_ = nullptr;
  // Placed before the next task and the next record. They unlink themselves when their lists are
  // destroyed.
  BookmarkListLinkNode nextTask_{BookmarkListLinkNode::bookmark};
  BookmarkListLinkNode nextCompleted_{BookmarkListLinkNode::bookmark};
};

}  // namespace Tarvo

#endif
