#include "platform/TimerWheelTrace.h"

#include "Tarvo/TimerWheel.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <new>
#include <utility>

#include "Tarvo/Allocator.h"

#include "Tarvo/Loco.h"
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
  const auto letGo = [](TimerWheelEvent* event) {
    event->stateIs(notLinked);
    event->expirationTime_ = infinity;
  };
  timeouts_->advance(~Tick{0});
  while (Impl::TimeoutRecord* record = timeouts_->takeExpired()) {
    letGo(timeoutLink2TimerWheelEvent(record));
  }
  for (auto& [expiry, bucket] : *timersExpiryingSoon_) {
    while (Impl::TimeoutRecord* record = bucket.first()) {
      bucket.remove(*record);
      letGo(timeoutLink2TimerWheelEvent(record));
    }
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
  // One of many timers is seldom in the cache; it may come while the clock is read.
  __builtin_prefetch(event, 1);
  __builtin_prefetch(&event->expirationTime_, 1);
  const double expiry = std::min(Tarvo::time() + delay, std::numeric_limits<double>::max());
  if (expiry == event->expirationTime_) return;
  if (event->expirationTime_ != infinity) timerStop(event);
  event->expirationTime_ = expiry;
  const auto tick = expiryTick(expiry);
  TARVO_TRACE(timerWheelTrace, 9, "timer {} set timeout {} expire at {} tick {}", event, delay,
              expiry, tick);
  timeouts_->add(*event, tick);
  event->stateIs(inTimerWheel);
  if (masterExpiry_ <= expiry) return;
  try {
    setMasterTimer();
  } catch (...) {
    timerStop(event);  // a start that failed has started nothing
    throw;
  }
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
  double expiry = infinity;

  const auto first = std::find_if(timersExpiryingSoon_->begin(), timersExpiryingSoon_->end(),
                                  [](const auto& entry) { return !entry.second.empty(); });
  if (first != timersExpiryingSoon_->end()) {
    expiry = first->first;
    delay = std::max(0.0, expiry - now);
    TARVO_TRACE(timerWheelTrace, 8,
                "has {} timers, firstExpiryTime={} now={}, set master timer timeout {}",
                expiry <= now ? "expired" : "scheduled", expiry, now, delay);
  }
  // A timer may have been started into the tick of those, and be due before them.
  if (timeouts_->hasExpired()) {
    TARVO_TRACE(timerWheelTrace, 8, "has expired timers, set master timer timeout 0");
    delay = 0.0;
    expiry = 0.0;
  } else if (timeouts_->hasPending()) {
    const Tick ticks = timeouts_->ticksToNext();
    const double wheelDelay = static_cast<double>(ticks) / ticksPerSecond;
    if (wheelDelay < delay) {
      TARVO_TRACE(
          timerWheelTrace, 8,
          "has scheduled timers, first timer expiry in {} ticks, set master timer timeout {}",
          ticks, wheelDelay);
      delay = wheelDelay;
      expiry = now + delay;
    }
  }
  armMasterTimer(delay, expiry);
}

void TimerWheel::armMasterTimer(double delay, double expiry) {
  masterExpiry_ = infinity;  // what it is when arming fails
  if (delay == infinity) {
    TARVO_TRACE(timerWheelTrace, 8, "has no timers, del master timer timeout");
    masterTimer_->delTimeout();
  } else {
    masterTimer_->setTimeout(delay);
    masterExpiry_ = expiry;
  }
}

void TimerWheel::timeout() {
  const auto self = weak_from_this().lock();  // a callback may drop the last other reference
  try {
    serve();
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    if (self == nullptr || self.use_count() > 1) throw;
    // Whoever called will ask this wheel what to do with the exception, and it is about to go.
    Impl::keepExceptionForLoop();
  }
}

void TimerWheel::serve() {
  TARVO_TRACE(timerWheelTrace, 8, "master timer expired");
  const double now = Tarvo::time();
  setCurrentTime(now);
  try {
    bucketDueTicks();
    serveDue(now);
  } catch (abi::__forced_unwind&) {
    throw;  // no exception that could be kept and thrown again: the thread is going
  } catch (...) {
    const auto failure = std::current_exception();
    try {
      setMasterTimer();           // the rest that was due comes with the next loop
    } catch (const Exception&) {  // no room for it; the first failure says more
    }
    std::rethrow_exception(failure);
  }
  setMasterTimer();
}

void TimerWheel::bucketDueTicks() {
  while (Impl::TimeoutRecord* record = timeouts_->takeExpired()) {
    TimerWheelEvent* event = timeoutLink2TimerWheelEvent(record);
    try {
      TimersAtTimeout& bucket = (*timersExpiryingSoon_)[event->expirationTime_];
      event->stateIs(notLinked);
      bucket.append(*event);
      event->stateIs(inTimersExpiryingSoon);
    } catch (const std::bad_alloc&) {
      timeouts_->add(*event, event->expires_);
      throw;
    }
  }
}

void TimerWheel::serveDue(double now) {
  // A callback may change any bucket, and may even serve the wheel itself: nothing but the map is
  // looked at across one.
  while (!timersExpiryingSoon_->empty()) {
    const auto soonest = timersExpiryingSoon_->begin();
    if (soonest->first > now) {
      TARVO_TRACE(timerWheelTrace, 9, "Defer processing timers with expiry time {} > now {}",
                  soonest->first, now);
      return;
    }
    Impl::TimeoutRecord* record = soonest->second.first();
    if (record == nullptr) {
      timersExpiryingSoon_->erase(soonest);
      continue;
    }
    TimerWheelEvent* event = timeoutLink2TimerWheelEvent(record);
    soonest->second.remove(*event);
    event->stateIs(notLinked);
    timerExpired(event);
  }
}

namespace {

std::shared_ptr<TimerWheel> makeWheel(Platform::EventPriority priority) {
  return std::allocate_shared<TimerWheel>(Allocator<TimerWheel>(), priority);
}

// Plain pointers, so that they outlive other objects; a wheel goes with the base it hangs on.
thread_local std::shared_ptr<TimerWheel>* threadWheel = nullptr;
std::shared_ptr<TimerWheel>* processWheel = nullptr;  // guarded by the global lock

}  // namespace

std::shared_ptr<TimerWheel> getTimerWheel() {
  if (hasThreadLocalSingletons()) {
    if (threadWheel == nullptr) {
      threadWheel = new std::shared_ptr<TimerWheel>(makeWheel(Platform::eventPriorityDefault));
      Impl::beforeBaseIsFreed([] { delete std::exchange(threadWheel, nullptr); });
    }
    return *threadWheel;
  }
  const Platform::LocoGuard guard;
  if (processWheel == nullptr) {
    processWheel = new std::shared_ptr<TimerWheel>(makeWheel(Platform::eventPriorityDefault));
    Impl::beforeBaseIsFreed([] {
      const Platform::LocoGuard release;
      delete std::exchange(processWheel, nullptr);
    });
  }
  return *processWheel;
}

std::shared_ptr<TimerWheel> getTimerWheelForTaskScheduler(Platform::EventPriority priority) {
  return makeWheel(priority);
}

}  // namespace Tarvo
