#include "scheduler/TaskNameIndex.h"

namespace Tarvo {

void TaskNameIndex::remove(TaskImpl& task) {
  const auto entry = byName_.find(task.taskNameRef());
  decltype(Entry::tasks)::unlink(task);
  if (entry->second.tasks.empty() && entry->second.completed == nullptr) byName_.erase(entry);
}

bool TaskNameIndex::addCompleted(const TaskStat& finished) {
  if (const auto entry = byName_.find(finished.taskNameRef());
      entry != byName_.end() && entry->second.completed != nullptr) {
    entry->second.completed->stat += finished;
    return false;
  }
  auto record = std::make_unique<Completed>();
  record->stat = finished;
  record->stat.taskCompletedCountIs(1);
  completed_.push_back(*(byName_[finished.taskNameRef()].completed = std::move(record)));
  return true;
}

void TaskNameIndex::eraseCompleted(const Completed& record) {
  const auto entry = byName_.find(record.stat.taskNameRef());
  entry->second.completed.reset();
  if (entry->second.tasks.empty()) byName_.erase(entry);
}

const TaskNameIndex::Entry* TaskNameIndex::find(const ConstStringRef& name) const {
  const auto entry = byName_.find(name);
  return entry == byName_.end() ? nullptr : &entry->second;
}

TaskImpl* TaskNameIndex::task(const ConstStringRef& name) const {
  const Entry* entry = find(name);
  return entry == nullptr ? nullptr : entry->tasks.first();
}

const TaskStat* TaskNameIndex::completed(const ConstStringRef& name) const {
  const Entry* entry = find(name);
  return entry == nullptr || entry->completed == nullptr ? nullptr : &entry->completed->stat;
}

}  // namespace Tarvo
