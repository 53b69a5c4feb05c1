#include "Tarvo/TaskWaker.h"

#include <utility>

#include "Tarvo/Allocator.h"
#include "Tarvo/TaskScheduler.h"
#include "platform/libevent/LoopWakes.h"

namespace Tarvo {

namespace {

/// Schedules what it was made for, as long as that is there.
template <typename Kind>
class Wake final : public Impl::LoopWake {
 public:
  Wake(Kind& task, void (*schedule)(Kind&)) : task_(shared(task)), schedule_(schedule) {}

 private:
  static std::weak_ptr<Kind> shared(Kind& task) {
    task.taskScheduler()->sanityCheckCurrentRunningThread();
    return std::static_pointer_cast<Kind>(task.shared_from_this());
  }
  void woken() override {
    if (const auto task = task_.lock()) schedule_(*task);
  }

  std::weak_ptr<Kind> task_;
  void (*schedule_)(Kind&);
};

template <typename Kind>
std::shared_ptr<Impl::LoopWake> makeWake(Kind& task, void (*schedule)(Kind&)) {
  return std::allocate_shared<Wake<Kind>>(Allocator<Wake<Kind>>(), task, schedule);
}

void scheduleReading(FileDescriptorTask& task) {
  if (task.taskWatchReadable()) task.scheduleTaskReadable();
}
void scheduleWriting(FileDescriptorTask& task) { task.scheduleTaskWritable(); }

}  // namespace

TaskWaker::TaskWaker() = default;
TaskWaker::TaskWaker(std::shared_ptr<Impl::LoopWake> wake) : wake_(std::move(wake)) {}
TaskWaker::TaskWaker(TaskImpl& task)
    : TaskWaker(makeWake<TaskImpl>(task, [](TaskImpl& woken) { woken.scheduleTask(); })) {}
TaskWaker::TaskWaker(FileDescriptorTask& task, Direction direction)
    : TaskWaker(makeWake(task, direction == Direction::read ? scheduleReading : scheduleWriting)) {}

void TaskWaker::wake() const noexcept {
  if (wake_ != nullptr) wake_->wake();
}

}  // namespace Tarvo
