#ifndef TARVO_SRC_SCHEDULER_TASKNAMEINDEX_H
#define TARVO_SRC_SCHEDULER_TASKNAMEINDEX_H

#include <memory>
#include <unordered_map>

#include "Tarvo/ConstString.h"
#include "Tarvo/List.h"
#include "Tarvo/Task.h"
#include "Tarvo/TaskStat.h"

namespace Tarvo {

/// What a scheduler knows by name: registered tasks, under their names, and the figures of
/// completed ones, under their statistics names and priorities. Of those there is a limit: the
/// figures of names beyond it are summed up under one name.
class TaskNameIndex {
 public:
  /// The figures of finished tasks of one statistics name and priority.
  struct Completed {
    TaskStat stat;
    BookmarkListLinkNode link;
    std::unique_ptr<Completed> next;  // of the name, with another priority
  };
  using CompletedList = BookmarkList<Completed, &Completed::link>;

  /// Looks on while records change.
  class Watcher {
   public:
    /// The figures of a finished task are about to join a record, which is new when its completed
    /// count is zero.
    virtual void completing(const Completed& record, const TaskStat& finished) = 0;
    /// All records are about to be forgotten.
    virtual void forgetting() = 0;

    ListLinkNode watcherLink;

   protected:
    ~Watcher() = default;
  };

  explicit TaskNameIndex(ConstStringCache& cache) : others_(cache, "(others)") {}

  void add(TaskImpl& task) { byName_[task.taskNameRef()].tasks.push_back(task); }
  void remove(TaskImpl& task);

  /// Adds the figures of a finished task to a sum, which may be empty.
  static void merge(TaskStat& sum, const TaskStat& finished);
  /// Merges the figures of a finished task; true when this made a record.
  bool addCompleted(const TaskStat& finished);
  void eraseCompleted(const Completed& record);
  void forgetCompleted();
  /// In the order in which the names came.
  CompletedList& completed() { return completed_; }
  void watch(Watcher& watcher) { watchers_.push_back(watcher); }

  /// How many records there may be, beside those of the others.
  unsigned int completedMax() const { return completedMax_; }
  /// Sums up the newest records that are too many.
  void completedMaxIs(unsigned int most);

  /// Null without one; any one when there are several.
  TaskImpl* task(const ConstStringRef& name) const;
  const TaskStat* completed(const ConstStringRef& name) const;

 private:
  struct Entry {
    List<TaskImpl, &TaskImpl::taskSameNameLink_> tasks;
    std::unique_ptr<Completed> completed;
  };

  Completed* find(const ConstStringRef& name, TaskPriority priority) const;
  bool isOthers(const TaskStat& stat) const { return stat.taskNameRef() == others_; }
  /// Makes an empty record of that name, of the priority of another.
  Completed& make(const ConstStringRef& name, const TaskStat& like);

  ConstStringRef others_;
  CompletedList completed_;
  unsigned int completedMax_ = 10'000;
  unsigned int namedCount_ = 0;  // of records but those of the others
  List<Watcher, &Watcher::watcherLink> watchers_;
  std::unordered_map<ConstStringRef, Entry> byName_;
};

}  // namespace Tarvo

#endif
