#include <bit>
#include <ostream>

#include "platform/wheel/TimerWheelTrace.h"

#include "Tarvo/TimerWheel.h"

namespace Tarvo {

String timerWheelStateToString(TimerWheelState state) {
  switch (state) {
    case notLinked:
      return "notLinked";
    case inTimerWheel:
      return "inTimerWheel";
    case inTimersExpiryingSoon:
      return "inTimersExpiryingSoon";
  }
  return "unknownState";
}

std::ostream& operator<<(std::ostream& out, TimerWheelState state) {
  return out << timerWheelStateToString(state);
}

TimerWheelEvent::TimerWheelEvent() { flags_ |= firstStateFlag << notLinked; }

TimerWheelEvent::~TimerWheelEvent() {
  Impl::checkInDestructor([this] {
    TARVO_ASSERT(state() == notLinked, "TimerWheelEvent {} destroyed while {}", this, state());
  });
}

void TimerWheelEvent::failState() const {
  const std::uint32_t flags = flags_ & stateFlags;
  TARVO_ASSERT(std::has_single_bit(flags), "None or multiple of our flags set {}", flags);
  TARVO_FAIL("Invalid flag combination {}", flags);
}

void TimerWheelEvent::failStateChange(TimerWheelState from, TimerWheelState to) {
  TARVO_ASSERT(from == notLinked || to == notLinked, "State change {} -> {} must go via {}", from,
               to, notLinked);
  TARVO_FAIL("invalid state {}", unsigned{to});
}

TimerWheelEvent* timeoutLink2TimerWheelEvent(Impl::TimeoutRecord* record) {
  return static_cast<TimerWheelEvent*>(record);
}

void TimerWheelEvent::setTimeout(const std::shared_ptr<TimerWheel>& wheel, double seconds) {
  wheel->timerStart(this, seconds);
}

void TimerWheelEvent::delTimeout(const std::shared_ptr<TimerWheel>& wheel) {
  wheel->timerStop(this);
}

double TimerWheelEvent::remainingTimeout() const {
  if (!runs()) return expirationTime_;
  const double left = expirationTime_ - Tarvo::time();
  return left > 0 ? left : 0.0;
}

}  // namespace Tarvo
