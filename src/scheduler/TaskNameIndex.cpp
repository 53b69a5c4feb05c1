#include "scheduler/TaskNameIndex.h"

#include <utility>

namespace Tarvo {

void TaskNameIndex::remove(TaskImpl& task) {
  const auto entry = byName_.find(task.taskNameRef());
  decltype(Entry::tasks)::unlink(task);
  if (entry->second.tasks.empty() && entry->second.completed == nullptr) byName_.erase(entry);
}

bool TaskNameIndex::addCompleted(const TaskStat& finished) {
  Completed* record = find(finished.taskNameRef(), finished.taskPriority());
  const bool isOther = record == nullptr && namedCount_ >= completedMax_;
  if (isOther) record = find(others_, finished.taskPriority());
  const bool isNew = record == nullptr;
  if (isNew) record = &make(isOther ? others_ : finished.taskNameRef(), finished);
  TaskStat figures = finished;
  figures.taskNameIs(record->stat.taskNameRef());
  // Before the merge: a watcher may want the record as it was.
  for (Watcher& watcher : watchers_) watcher.completing(*record, figures);
  merge(record->stat, figures);
  return isNew;
}

void TaskNameIndex::merge(TaskStat& sum, const TaskStat& finished) {
  if (sum.taskCompletedCount() == 0) {
    sum = finished;
    sum.taskCompletedCountIs(1);
  } else {
    sum += finished;
  }
}

TaskNameIndex::Completed& TaskNameIndex::make(const ConstStringRef& name, const TaskStat& like) {
  auto record = std::make_unique<Completed>();
  record->stat = TaskStat(name, like.taskKey(), like.taskPriority(), 0, 0);
  std::unique_ptr<Completed>& first = byName_[name].completed;
  record->next = std::move(first);
  first = std::move(record);
  completed_.push_back(*first);
  if (!isOthers(first->stat)) ++namedCount_;
  return *first;
}

void TaskNameIndex::eraseCompleted(const Completed& record) {
  const auto entry = byName_.find(record.stat.taskNameRef());
  if (!isOthers(record.stat)) --namedCount_;
  std::unique_ptr<Completed>* at = &entry->second.completed;
  while (at->get() != &record) at = &(*at)->next;
  *at = std::move((*at)->next);
  if (entry->second.tasks.empty() && entry->second.completed == nullptr) byName_.erase(entry);
}

void TaskNameIndex::forgetCompleted() {
  for (Watcher& watcher : watchers_) watcher.forgetting();
  while (const Completed* record = completed_.first()) eraseCompleted(*record);
}

void TaskNameIndex::completedMaxIs(unsigned int most) {
  completedMax_ = most;
  unsigned int named = 0;
  for (auto next = completed_.begin(); next != completed_.end();) {
    const Completed& record = *next++;
    const TaskStat& stat = record.stat;
    if (isOthers(stat) || ++named <= most) continue;
    Completed* sum = find(others_, stat.taskPriority());
    if (sum == nullptr) sum = &make(others_, stat);
    TaskStat figures = stat;
    figures.taskNameIs(others_);
    merge(sum->stat, figures);
    sum->stat.taskCompletedCountInc(stat.taskCompletedCount() - 1);  // merge() has counted one
    eraseCompleted(record);
  }
}

TaskNameIndex::Completed* TaskNameIndex::find(const ConstStringRef& name,
                                              TaskPriority priority) const {
  const auto entry = byName_.find(name);
  if (entry == byName_.end()) return nullptr;
  Completed* record = entry->second.completed.get();
  while (record != nullptr && record->stat.taskPriority() != priority) record = record->next.get();
  return record;
}

TaskImpl* TaskNameIndex::task(const ConstStringRef& name) const {
  const auto entry = byName_.find(name);
  return entry == byName_.end() ? nullptr : entry->second.tasks.first();
}

const TaskStat* TaskNameIndex::completed(const ConstStringRef& name) const {
  const auto entry = byName_.find(name);
  return entry == byName_.end() || entry->second.completed == nullptr
             ? nullptr
             : &entry->second.completed->stat;
}

}  // namespace Tarvo
