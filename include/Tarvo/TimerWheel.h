#ifndef TARVO_TIMERWHEEL_H
#define TARVO_TIMERWHEEL_H

/// Many timers on one timer of the event loop.
///
/// What happens when:
/// 1. timerStart() notes the exact expiry on the library clock (a double) and puts the timer into
///    the slot of its tick (10 ms, rounded down). If the timer is due before the master timer, the
///    master timer is armed for it. A running timer that is put off stays in its old slot until
///    that tick has come, and moves then (not in fast forward, where each stop would be a jump).
/// 2. When the master timer fires, the wheel advances to the clock in ticks, rounded up. That hands
///    out every timer that expires within the current tick.
/// 3. Those wait in a list, sorted by exact expiry. The ones that are due are called; for the rest
///    the master timer is armed with the exact remainder.
///
/// So a timer never fires early on the library clock, not by a microsecond, while starting and
/// stopping one costs constant time and allocates nothing.
///
///     struct Retry : Tarvo::TimerWheelEvent {
///       void timeout() override { std::puts("again"); }
///     };
///     auto wheel = Tarvo::getTimerWheel();
///     Retry retry;
///     retry.setTimeout(wheel, 0.25);
///     Tarvo::Platform::doEventLoop(1.0);
///     retry.delTimeout(wheel);  // a running event must be stopped before it is destroyed
///
/// A wheel and its events are used on one thread: the one that made the wheel. A timeout() may do
/// anything with any event: start and stop it, destroy it, drop the last reference to the wheel.
/// When it throws, the exception leaves the event loop; the rest that was due is served by the next
/// one.
///
/// Delays are seconds. Infinity stops the timer, a negative delay is due at once, a huge one
/// saturates and NaN fails an assertion.

#include <cstdint>
#include <iosfwd>
#include <limits>
#include <memory>

#include "Tarvo/Export.h"
#include "Tarvo/Platform.h"
#include "Tarvo/String.h"
#include "Tarvo/detail/TimeoutRecord.h"

namespace Tarvo {

namespace Impl {
class ThreadLoop;
class TimingWheel;
}  // namespace Impl

class TimerWheel;

enum TimerWheelState : std::uint8_t {
  notLinked = 0,             // in no structure: not running
  inTimerWheel = 1,          // waits for its tick
  inTimersExpiryingSoon = 2  // its tick has come; waits for its exact expiry
};

TARVO_EXPORT String timerWheelStateToString(TimerWheelState state);
TARVO_EXPORT std::ostream& operator<<(std::ostream& out, TimerWheelState state);

/// One timer. To be stopped before it is destroyed: destroying a running one ends the process.
class TARVO_EXPORT TimerWheelEvent : private Impl::TimeoutRecord {
 public:
  TimerWheelEvent();
  TimerWheelEvent(const TimerWheelEvent&) = delete;
  TimerWheelEvent& operator=(const TimerWheelEvent&) = delete;

  /// Called when the timer expires; it is not running then.
  virtual void timeout() = 0;
  virtual ~TimerWheelEvent();

  /// Starts the timer, or starts it anew, on `wheel`.
  void setTimeout(const std::shared_ptr<TimerWheel>& wheel, double seconds);
  /// Stops it on the wheel that it runs on; harmless when it does not run.
  void delTimeout(const std::shared_ptr<TimerWheel>& wheel);
  /// Seconds left, 0.0 when it is overdue, infinity when it does not run.
  double remainingTimeout() const;

  TimerWheelState state() const;
  /// For the wheel, which notes here where the timer is. Fails an assertion when the change is
  /// not from or to notLinked.
  void stateIs(TimerWheelState state);
  /// The exact expiry on the library clock, infinity when it does not run.
  double expirationTime() const { return expirationTime_; }

 private:
  friend class TimerWheel;
  friend TimerWheelEvent* timeoutLink2TimerWheelEvent(Impl::TimeoutRecord* record);

  // The state is in the record's flags: exactly one of three bits is set. It says where the timer
  // is linked. Whether the timer runs is decided by expirationTime_ alone.
  static constexpr std::uint32_t firstStateFlag = 4;
  static constexpr std::uint32_t stateFlags = 7 * firstStateFlag;

  [[noreturn]] void failState() const;
  [[noreturn]] static void failStateChange(TimerWheelState from, TimerWheelState to);

  bool runs() const { return expirationTime_ != std::numeric_limits<double>::infinity(); }

  double expirationTime_ = std::numeric_limits<double>::infinity();
};

inline TimerWheelState TimerWheelEvent::state() const {
  switch (flags_ & stateFlags) {
    case firstStateFlag << notLinked:
      return notLinked;
    case firstStateFlag << inTimerWheel:
      return inTimerWheel;
    case firstStateFlag << inTimersExpiryingSoon:
      return inTimersExpiryingSoon;
    default:
      failState();
  }
}

inline void TimerWheelEvent::stateIs(TimerWheelState state) {
  const TimerWheelState old = this->state();
  if (state == old) return;
  if ((old != notLinked && state != notLinked) || state > inTimersExpiryingSoon) [[unlikely]] {
    failStateChange(old, state);
  }
  flags_ = (flags_ & ~stateFlags) | (firstStateFlag << state);
}

/// The event that a record belongs to.
TARVO_EXPORT TimerWheelEvent* timeoutLink2TimerWheelEvent(Impl::TimeoutRecord* record);

/// A wheel. Made by the functions below, and owned by shared pointers. All its events must be
/// stopped before the last one is gone.
class TARVO_EXPORT TimerWheel : private Platform::TimeoutHandler,
                                public std::enable_shared_from_this<TimerWheel> {
 public:
  explicit TimerWheel(Platform::EventPriority priority);
  TimerWheel(const TimerWheel&) = delete;
  TimerWheel& operator=(const TimerWheel&) = delete;
  ~TimerWheel() override;

  void timerStart(TimerWheelEvent* event, double delay);
  /// The same for a caller that has just read the library clock. The delay counts from `now`: with
  /// a reading from before the call the timer would expire too early by the difference.
  void timerStartFrom(TimerWheelEvent* event, double now, double delay);
  void timerStop(TimerWheelEvent* event);
  /// Calls the event's timeout(). REQUIRES: the event is in no list.
  void timerExpired(TimerWheelEvent* event) const;

  /// Advances the wheel to `now` on the library clock; calls no timer.
  void setCurrentTime(double now);
  /// Arms the master timer for the next expiry, or disarms it when there is none.
  void setMasterTimer();
  /// Calls the timers that are due; the master timer's handler.
  void timeout() override;

 private:
  class ExactTimes;
  friend class Impl::ThreadLoop;  // links the wheels of its thread

  /// Whether the master timer is armed and no timer runs.
  bool armedForNothing() const;
  bool mayStay(const TimerWheelEvent& event, std::uint64_t tick) const;
  [[gnu::cold]] TimerWheel& otherWheelOf(const TimerWheelEvent& event) const;
  void setMasterTimer(double now);
  void armMasterTimer(double delay, double expiry);
  void serve();
  void takeDueTimers();
  void serveDue(double now);

  double masterExpiry_ = std::numeric_limits<double>::infinity();  // 0.0: armed for now
  std::shared_ptr<Platform::TimerControl> masterTimer_;
  std::unique_ptr<Impl::TimingWheel> timeouts_;
  std::unique_ptr<ExactTimes> timersExpiryingSoon_;
  Impl::ThreadLoop* loop_ = nullptr;  // null when its thread has ended
  TimerWheel* nextOfThread_ = nullptr;
};

/// The shared wheel, with default priority: one per thread if the thread has singletons of its own,
/// otherwise one for the process, which belongs to the thread that asked first. It is destroyed
/// with that thread's event base; the next call makes another.
TARVO_EXPORT std::shared_ptr<TimerWheel> getTimerWheel();

/// A wheel of the caller's own, whose master timer has `priority`.
TARVO_EXPORT std::shared_ptr<TimerWheel> getTimerWheelForTaskScheduler(
    Platform::EventPriority priority);

namespace Platform {

/// A timer control on a wheel. It stops its timer when it is destroyed.
TARVO_EXPORT std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler,
                                                           std::shared_ptr<TimerWheel> wheel);

}  // namespace Platform

}  // namespace Tarvo

#endif
