#ifndef TARVO_SRC_SERVICE_TASKWAKE_H
#define TARVO_SRC_SERVICE_TASKWAKE_H

#include "Tarvo/Task.h"
#include "platform/libevent/LoopWakes.h"

namespace Tarvo::Impl {

/// Schedules a task that makes it in its constructor, as long as that is there.
class TaskWake final : public LoopWake {
 public:
  explicit TaskWake(TaskImpl& task) : task_(&task) {}
  /// To be called on the task's thread.
  void forgetTask() noexcept { task_ = nullptr; }

 private:
  void woken() override {
    if (task_ != nullptr) task_->scheduleTask();
  }

  TaskImpl* task_;
};

}  // namespace Tarvo::Impl

#endif
