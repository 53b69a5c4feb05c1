#ifndef TARVO_SRC_PLATFORM_SCHEDULERCALLBACK_H
#define TARVO_SRC_PLATFORM_SCHEDULERCALLBACK_H

#include <chrono>
#include <cstdint>
#include <memory>

#include "Tarvo/LibeventControls.h"

namespace Tarvo::Impl {

/// The callback control of a root scheduler, which takes several steps in one callback. It decides
/// when the callback comes and when the steps must stop, so that tasks cannot starve the loop.
class SchedulerCallback final : public LibeventCallbackControl {
 public:
  using LibeventCallbackControl::LibeventCallbackControl;
  ~SchedulerCallback() override;

  /// The callback comes in the next turn of the loop, after the loop has waited in the kernel.
  void requestCallback() override;
  /// When a fresh event wakes the scheduler, the callback comes in the present turn, after the
  /// events that are active already. Otherwise it comes in the next turn.
  void requestSoon();
  void timeout() override;

  using TimePoint = std::chrono::steady_clock::time_point;

  /// How long one callback may go on taking steps.
  class Slice {
   public:
    /// Ends after `length`, or with the running loop when that ends sooner.
    Slice(const SchedulerCallback& callback, TimePoint now, std::chrono::nanoseconds length);
    Slice(const Slice&) = delete;
    Slice& operator=(const Slice&) = delete;
    /// Polls the descriptors whose poll was delayed until now.
    ~Slice();
    /// Whether another step may begin at `now`: the slice has time left, and the loop has nothing
    /// to serve that it knows of without a system call (an active event, a timer without delay, a
    /// break). What other threads have woken meanwhile is scheduled before the step.
    bool goesOn(TimePoint now) const;
    /// Without another step the loop may wait in the kernel. False when other threads have woken
    /// something meanwhile, which is scheduled now.
    bool mayWait() const;

   private:
    std::uint64_t dueTimersArmed_;
    TimePoint end_;
  };

 private:
  // LoopWords::dueTimersArmed when the callback was last requested for the next turn.
  std::uint64_t dueTimersArmed_ = 0;
};

std::shared_ptr<SchedulerCallback> getSchedulerCallback(Platform::CallbackHandler* handler);

}  // namespace Tarvo::Impl

#endif
