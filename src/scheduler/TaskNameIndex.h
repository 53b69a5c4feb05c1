#ifndef TARVO_SRC_SCHEDULER_TASKNAMEINDEX_H
#define TARVO_SRC_SCHEDULER_TASKNAMEINDEX_H

#include <memory>
#include <unordered_map>

#include "Tarvo/ConstString.h"
#include "Tarvo/List.h"
#include "Tarvo/Task.h"
#include "Tarvo/TaskStat.h"

namespace Tarvo {

/// A scheduler's index by name. It holds the registered tasks under their names, and the figures of
/// completed tasks under their statistics names and priorities. The number of such records is
/// limited: the figures of further names are added up under the name "(others)".
class TaskNameIndex {
 public:
  /// The figures of finished tasks of one statistics name and priority.
  struct Completed {
    TaskStat stat;
    BookmarkListLinkNode link;
    std::unique_ptr<Completed> next;  // the same name with another priority
  };
  using CompletedList = BookmarkList<Completed, &Completed::link>;

  /// Is notified before records change. StatsWalk needs it: it reads records over many steps,
  /// during which tasks finish.
  class Watcher {
   public:
    /// The figures of a finished task are about to be added to `record`, which is new when its
    /// completed count is zero.
    virtual void completing(const Completed& record, const TaskStat& finished) = 0;
    /// All records are about to be erased.
    virtual void forgetting() = 0;

    ListLinkNode watcherLink;

   protected:
    ~Watcher() = default;
  };

  explicit TaskNameIndex(ConstStringCache& cache) : others_(cache, "(others)") {}

  void add(TaskImpl& task) { byName_[task.taskNameRef()].tasks.push_back(task); }
  void remove(TaskImpl& task);

  /// Adds the figures of a finished task to a sum. An empty sum becomes a copy.
  static void merge(TaskStat& sum, const TaskStat& finished);
  /// Adds the figures of a finished task to its record. Returns whether the record is new.
  bool addCompleted(const TaskStat& finished);
  void eraseCompleted(const Completed& record);
  void forgetCompleted();
  /// The records in the order in which they were made.
  CompletedList& completed() { return completed_; }
  void watch(Watcher& watcher) { watchers_.push_back(watcher); }

  /// The maximum number of records, not counting those of "(others)".
  unsigned int completedMax() const { return completedMax_; }
  /// Adds the newest records beyond the new maximum to those of "(others)".
  void completedMaxIs(unsigned int most);

  /// Null when there is none; any one when there are several.
  TaskImpl* task(const ConstStringRef& name) const;
  const TaskStat* completed(const ConstStringRef& name) const;

 private:
  struct Entry {
    List<TaskImpl, &TaskImpl::taskSameNameLink_> tasks;
    std::unique_ptr<Completed> completed;
  };

  Completed* find(const ConstStringRef& name, TaskPriority priority) const;
  bool isOthers(const TaskStat& stat) const { return stat.taskNameRef() == others_; }
  /// Makes an empty record of that name, with the priority of `like`.
  Completed& make(const ConstStringRef& name, const TaskStat& like);

  ConstStringRef others_;
  CompletedList completed_;
  unsigned int completedMax_ = 10'000;
  unsigned int namedCount_ = 0;  // records, without those of "(others)"
  List<Watcher, &Watcher::watcherLink> watchers_;
  std::unordered_map<ConstStringRef, Entry> byName_;
};

}  // namespace Tarvo

#endif
