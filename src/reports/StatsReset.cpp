#include <utility>

#include "Tarvo/Allocator.h"
#include "reports/StatsWalk.h"

namespace Tarvo {

class TaskSchedulerRoot::StatsReset final : public Task {
 public:
  StatsReset(TaskSchedulerRoot& root, std::function<void()> done)
      : Task(&root, TaskPriority::low, "statsReset"),
        root_(root),
        walk_(root),
        done_(std::move(done)) {
    ++root_.resetsInProgress_;
  }
  ~StatsReset() override {
    if (!over_) --root_.resetsInProgress_;
    handleDestroy();
  }

  void taskExecute() override {
    if (over_) return;
    scheduleTask();  // here, so that the reset goes on when a hook throws
    while (true) {
      if (walk_.next() == StatsWalk::At::end) break;
      // Not this task itself: its present run is not over.
      if (walk_.at() != StatsWalk::At::task || &walk_.task() != this) walk_.reset();
      if (taskShouldYield()) return;
    }
    unscheduleTask();
    over_ = true;
    --root_.resetsInProgress_;
    if (const auto done = std::exchange(done_, nullptr)) done();
  }

 private:
  TaskSchedulerRoot& root_;
  StatsWalk walk_;
  std::function<void()> done_;
  bool over_ = false;
};

std::shared_ptr<Task> TaskSchedulerRoot::statsResetAsync(std::function<void()> done) {
  sanityCheckCurrentRunningThread();
  const auto reset =
      std::allocate_shared<StatsReset>(Allocator<StatsReset>(), *this, std::move(done));
  reset->includeInCompletedTaskIs(false);
  reset->scheduleTask();
  return reset;
}

}  // namespace Tarvo
