#include "Tarvo/Allocator.h"
#include "Tarvo/TimerWheel.h"

namespace Tarvo {

namespace {

/// A timer control whose timer hangs on a wheel.
class TimerWheelTimerControl : public Platform::TimerControl, public TimerWheelEvent {
 public:
  TimerWheelTimerControl(Platform::TimeoutHandler* handler, std::shared_ptr<TimerWheel> wheel)
      : handler_(handler), wheel_(std::move(wheel)) {}
  ~TimerWheelTimerControl() override { wheel_->timerStop(this); }

  void setTimeout(double seconds) override { wheel_->timerStart(this, seconds); }
  void delTimeout() override { wheel_->timerStop(this); }
  double remainingTimeout() const override { return TimerWheelEvent::remainingTimeout(); }
  void timeout() override { handler_->timeout(); }

 private:
  Platform::TimeoutHandler* handler_;
  std::shared_ptr<TimerWheel> wheel_;
};

}  // namespace

std::shared_ptr<Platform::TimerControl> Platform::getTimerControl(
    TimeoutHandler* handler, std::shared_ptr<TimerWheel> wheel) {
  return std::allocate_shared<TimerWheelTimerControl>(Allocator<TimerWheelTimerControl>(), handler,
                                                      std::move(wheel));
}

}  // namespace Tarvo
