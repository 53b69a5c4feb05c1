#include <bit>
#include <ostream>

#include "platform/TimerWheelTrace.h"

#include "Tarvo/TimerWheel.h"

namespace Tarvo {

namespace {

/// Exactly one of these is set in the record's flags.
constexpr std::uint32_t firstStateFlag = 4;
constexpr std::uint32_t stateCount = 3;
constexpr std::uint32_t stateFlags = firstStateFlag * ((1U << stateCount) - 1);

constexpr std::uint32_t flagOf(TimerWheelState state) { return firstStateFlag << state; }

}  // namespace

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

TimerWheelEvent::TimerWheelEvent() { flags_ |= flagOf(notLinked); }

TimerWheelEvent::~TimerWheelEvent() {
  TARVO_ASSERT(state() == notLinked, "TimerWheelEvent {} destroyed while {}", this, state());
}

TimerWheelState TimerWheelEvent::state() const {
  const std::uint32_t flags = flags_ & stateFlags;
  TARVO_ASSERT(std::has_single_bit(flags), "None or multiple of our flags set {}", flags);
  const auto state = static_cast<TimerWheelState>(std::countr_zero(flags / firstStateFlag));
  TARVO_ASSERT(state < stateCount, "Invalid flag combination {}", flags);
  return state;
}

void TimerWheelEvent::stateIs(TimerWheelState state) {
  const TimerWheelState old = this->state();
  if (state == old) return;
  TARVO_ASSERT(old == notLinked || state == notLinked, "State change {} -> {} must go via {}", old,
               state, notLinked);
  TARVO_ASSERT(state < stateCount, "invalid state {}", unsigned{state});
  flags_ = (flags_ & ~stateFlags) | flagOf(state);
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
  if (expirationTime_ == std::numeric_limits<double>::infinity()) return expirationTime_;
  const double left = expirationTime_ - Tarvo::time();
  return left > 0 ? left : 0.0;
}

}  // namespace Tarvo
