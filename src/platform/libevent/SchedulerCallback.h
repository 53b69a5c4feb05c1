#ifndef TARVO_SRC_PLATFORM_SCHEDULERCALLBACK_H
#define TARVO_SRC_PLATFORM_SCHEDULERCALLBACK_H

#include <chrono>
#include <cstdint>
#include <memory>

#include "Tarvo/LibeventControls.h"

namespace Tarvo::Impl {

/// The callback control of a scheduler that takes several steps in one callback.
class SchedulerCallback final : public LibeventCallbackControl {
 public:
  using LibeventCallbackControl::LibeventCallbackControl;

  /// The callback comes in the next turn of the loop, which asks the kernel first.
  void requestCallback() override;
  /// Where something new wakes the scheduler, the callback comes in the present turn, behind what
  /// is active already; otherwise in the next one.
  void requestSoon();
  void timeout() override;

  using TimePoint = std::chrono::steady_clock::time_point;

  /// The time of a callback in which the scheduler takes as many steps as the loop can spare.
  class Slice {
   public:
    /// It may take `length`, but not go beyond the end of the running loop.
    Slice(const SchedulerCallback& callback, TimePoint now, std::chrono::nanoseconds length);
    /// Whether another step may begin at `now`: there is time left, and nothing that the loop could
    /// serve without asking the kernel or the clock would have to wait.
    bool goesOn(TimePoint now) const;

   private:
    std::uint64_t dueTimersArmed_;
    TimePoint end_;
  };

 private:
  std::uint64_t dueTimersArmed_ = 0;  // when the callback was last requested for the next turn
};

std::shared_ptr<SchedulerCallback> getSchedulerCallback(Platform::CallbackHandler* handler);

}  // namespace Tarvo::Impl

#endif
