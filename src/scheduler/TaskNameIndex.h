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
/// completed ones, under their statistics names.
class TaskNameIndex {
 public:
  void add(TaskImpl& task) { byName_[task.taskNameRef()].tasks.push_back(task); }
  void remove(TaskImpl& task);
  /// The figures of finished tasks of one statistics name.
  struct Completed {
    TaskStat stat;
    BookmarkListLinkNode link;
  };
  using CompletedList = BookmarkList<Completed, &Completed::link>;

  /// Merges the figures of a finished task; true when they are the first of their name.
  bool addCompleted(const TaskStat& finished);
  void eraseCompleted(const Completed& record);
  /// In the order in which the names came.
  CompletedList& completed() { return completed_; }

  /// Null without one; any one when there are several.
  TaskImpl* task(const ConstStringRef& name) const;
  const TaskStat* completed(const ConstStringRef& name) const;

 private:
  struct Entry {
    List<TaskImpl, &TaskImpl::taskSameNameLink_> tasks;
    std::unique_ptr<Completed> completed;
  };

  const Entry* find(const ConstStringRef& name) const;

  CompletedList completed_;
  std::unordered_map<ConstStringRef, Entry> byName_;
};

}  // namespace Tarvo

#endif
