#include "platform/TimerWheelTrace.h"

#include "Tarvo/TimerWheel.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "Tarvo/Allocator.h"

#include "Tarvo/LibeventFactory.h"
#include "Tarvo/Thread.h"
#include "platform/LibeventBase.h"
#include "platform/Notification.h"
#include "platform/TimersAtTimeout.h"
#include "platform/TimingWheel.h"

namespace Tarvo {

using Impl::timerWheelTrace;

namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double ticksPerSecond = 100.0;

using Tick = Impl::TimingWheel::Tick;

/// The whole ticks of a time; beyond the range of ticks lie its ends.
Tick wholeTicks(double ticks) {
  constexpr double beyond = 18446744073709551616.0;  // 2^64
  if (!(ticks > 0)) return 0;
  return ticks < beyond ? static_cast<Tick>(ticks) : ~Tick{0};
}

// Rounding the clock up and the expiries down hands out every timer of the running tick; what is
// not due to the microsecond then waits among the exact times.
Tick expiryTick(double expiry) { return wholeTicks(ticksPerSecond * expiry); }
Tick clockTick(double now) { return wholeTicks(std::ceil(ticksPerSecond * now)); }

}  // namespace

TimerWheel::TimerWheel(Platform::EventPriority priority)
    : masterTimer_(Platform::getTimerControl(this, priority)),
      timeouts_(std::make_unique<Impl::TimingWheel>()),
      timersExpiryingSoon_(std::make_unique<ExactTimes>()) {
  setCurrentTime(Tarvo::time());
}

TimerWheel::~TimerWheel() {
  // None should be left; but one that is must not point into a wheel that is gone.
  timeouts_->advance(~Impl::TimingWheel::Tick{0});
  while (Impl::TimeoutRecord* record = timeouts_->takeExpired()) {
    TimerWheelEvent* event = timeoutLink2TimerWheelEvent(record);
    event->stateIs(notLinked);
    event->expirationTime_ = infinity;
  }
}

void TimerWheel::setCurrentTime(double now) {
  const auto tick = clockTick(now);
  TARVO_TRACE(timerWheelTrace, 8, "advance time to {} tick {}", now, tick);
  timeouts_->advance(tick);
}

void TimerWheel::timerStart(TimerWheelEvent* event, double delay) {
  TARVO_ASSERT(!std::isnan(delay), "a delay of NaN seconds");
  if (delay == infinity) return timerStop(event);
  const double expiry = std::min(Tarvo::time() + delay, std::numeric_limits<double>::max());
  if (expiry == event->expirationTime_) return;
  if (event->expirationTime_ != infinity) timerStop(event);
  event->expirationTime_ = expiry;
  const auto tick = expiryTick(expiry);
  TARVO_TRACE(timerWheelTrace, 9, "timer {} set timeout {} expire at {} tick {}", event, delay,
              expiry, tick);
  timeouts_->add(*event, tick);
  event->stateIs(inTimerWheel);
  if (masterExpiry_ > expiry) setMasterTimer();
}

void TimerWheel::timerStop(TimerWheelEvent* event) {
  if (event->expirationTime_ == infinity) {
    TARVO_TRACE(timerWheelTrace, 9, "timer {} del timeout, not running", event);
    return;
  }
  TARVO_TRACE(timerWheelTrace, 9, "timer {} del timeout", event);
  switch (event->state()) {
    case inTimerWheel:
      timeouts_->remove(*event);
      break;
    case inTimersExpiryingSoon:
      leaveBucket(event);
      break;
    case notLinked:
      TARVO_FAIL("Not linked but expirationTime={}", event->expirationTime_);
  }
  event->stateIs(notLinked);
  event->expirationTime_ = infinity;
}

void TimerWheel::leaveBucket(TimerWheelEvent* event) {
  const auto bucket = timersExpiryingSoon_->find(event->expirationTime_);
  TARVO_ASSERT(bucket != timersExpiryingSoon_->end(), "No timersAtTimeout");
  TARVO_ASSERT(event->state() == inTimersExpiryingSoon,
               "Removing from timersExpiryingSoon in state {}", event->state());
  bucket->second.remove(*event);
}

void TimerWheel::timerExpired(TimerWheelEvent* event) const {
  TARVO_TRACE(timerWheelTrace, 9, "timer {} expired", event);
  event->expirationTime_ = infinity;
  event->timeout();
}

void TimerWheel::setMasterTimer() {
  const double now = Tarvo::time();
  setCurrentTime(now);
  double delay = infinity;

  for (const auto& [key, bucket] : *timersExpiryingSoon_) {
    if (bucket.empty()) continue;
    delay = key <= now ? 0.0 : key - now;
    masterExpiry_ = key;
    TARVO_TRACE(timerWheelTrace, 8,
                "has {} timers, firstExpiryTime={} now={}, set master timer timeout {}",
                key <= now ? "expired" : "scheduled", key, now, delay);
    break;
  }
  // A timer may have been started into the tick of those, and be due before them.
  if (timeouts_->hasExpired()) {
    TARVO_TRACE(timerWheelTrace, 8, "has expired timers, set master timer timeout 0");
    delay = 0.0;
    masterExpiry_ = 0.0;
  } else if (timeouts_->hasPending()) {
    const auto ticks = timeouts_->ticksToNext();
    const double wheelDelay = static_cast<double>(ticks) / ticksPerSecond;
    if (wheelDelay < delay) {
      TARVO_TRACE(
          timerWheelTrace, 8,
          "has scheduled timers, first timer expiry in {} ticks, set master timer timeout {}",
          ticks, wheelDelay);
      delay = wheelDelay;
      masterExpiry_ = now + delay;
    }
  } else if (delay == infinity) {
    TARVO_TRACE(timerWheelTrace, 8, "has no timers, del master timer timeout");
    masterExpiry_ = infinity;
  }
  masterTimer_->setTimeout(delay);  // infinity disarms
}

void TimerWheel::timeout() {
  const auto self = shared_from_this();  // a callback may drop the last other reference
  TARVO_TRACE(timerWheelTrace, 8, "master timer expired");
  const double now = Tarvo::time();
  setCurrentTime(now);
  try {
    bucketDueTicks();
    serveDue(now);
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    setMasterTimer();  // the rest that was due comes with the next loop
    if (self.use_count() > 1) throw;
    // Whoever called will ask this wheel what to do with the exception, and it is about to go.
    Impl::keepExceptionForLoop();
    return;
  }
  setMasterTimer();
}

void TimerWheel::bucketDueTicks() {
  while (Impl::TimeoutRecord* record = timeouts_->takeExpired()) {
    TimerWheelEvent* event = timeoutLink2TimerWheelEvent(record);
    event->stateIs(notLinked);
    (*timersExpiryingSoon_)[event->expirationTime_].append(*event);
    event->stateIs(inTimersExpiryingSoon);
  }
}

void TimerWheel::serveDue(double now) {
  while (!timersExpiryingSoon_->empty()) {
    const auto bucket = timersExpiryingSoon_->begin();
    if (bucket->first > now) {
      TARVO_TRACE(timerWheelTrace, 9, "Defer processing timers with expiry time {} > now {}",
                  bucket->first, now);
      return;
    }
    // Callbacks may stop events of this bucket, but only this loop erases it.
    while (Impl::TimeoutRecord* record = bucket->second.first()) {
      TimerWheelEvent* event = timeoutLink2TimerWheelEvent(record);
      bucket->second.remove(*event);
      event->stateIs(notLinked);
      timerExpired(event);
    }
    timersExpiryingSoon_->erase(bucket);
  }
}

namespace {

std::shared_ptr<TimerWheel> makeWheel(Platform::EventPriority priority) {
  return std::allocate_shared<TimerWheel>(Allocator<TimerWheel>(), priority);
}

// A plain pointer, so that it outlives the thread's other objects; it goes with the thread's base.
thread_local std::shared_ptr<TimerWheel>* threadWheel = nullptr;

}  // namespace

std::shared_ptr<TimerWheel> getTimerWheel() {
  if (hasThreadLocalSingletons()) {
    if (threadWheel == nullptr) {
      threadWheel = new std::shared_ptr<TimerWheel>(makeWheel(Platform::eventPriorityDefault));
      Impl::beforeBaseIsFreed([] { delete std::exchange(threadWheel, nullptr); });
    }
    return *threadWheel;
  }
  static const auto& wheel =
      *new std::shared_ptr<TimerWheel>(makeWheel(Platform::eventPriorityDefault));
  return wheel;
}

std::shared_ptr<TimerWheel> getTimerWheelForTaskScheduler(Platform::EventPriority priority) {
  return makeWheel(priority);
}

}  // namespace Tarvo
