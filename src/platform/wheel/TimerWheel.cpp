#include "platform/wheel/TimerWheelTrace.h"

#include "Tarvo/TimerWheel.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <new>
#include <utility>

#include "Tarvo/Allocator.h"

#include "Tarvo/Loco.h"
#include "Tarvo/Thread.h"
#include "platform/libevent/LibeventBase.h"
#include "platform/libevent/Notification.h"
#include "platform/libevent/ThreadLoop.h"
#include "platform/wheel/ExactTimes.h"
#include "platform/wheel/TimingWheel.h"

namespace Tarvo {

using Impl::timerWheelTrace;

namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double ticksPerSecond = 100.0;

using Tick = Impl::TimingWheel::Tick;

/// Rounds down to whole ticks, and saturates at both ends of the range.
Tick wholeTicks(double ticks) {
  constexpr double beyond = 18446744073709551616.0;  // 2^64
  if (!(ticks > 0)) return 0;
  return ticks < beyond ? static_cast<Tick>(ticks) : ~Tick{0};
}

// With the clock rounded up and expiries rounded down, the wheel hands out every timer of the
// current tick. Those not yet due then wait in the list of exact times.
Tick expiryTick(double expiry) { return wholeTicks(ticksPerSecond * expiry); }
Tick clockTick(double now) { return wholeTicks(std::ceil(ticksPerSecond * now)); }

}  // namespace

TimerWheel::TimerWheel(Platform::EventPriority priority)
    : masterTimer_(Platform::getTimerControl(this, priority)),
      timeouts_(std::make_unique<Impl::TimingWheel>()),
      timersExpiryingSoon_(std::make_unique<ExactTimes>()) {
  setCurrentTime(Tarvo::time());
  Impl::ThreadLoop::own().add(*this);
}

TimerWheel::~TimerWheel() {
  if (loop_ != nullptr) loop_->remove(*this);
  // No event should be left, but one that is must not stay linked into freed memory.
  const auto letGo = [](TimerWheelEvent* event) {
    event->stateIs(notLinked);
    event->expirationTime_ = infinity;
  };
  timeouts_->advance(~Tick{0});
  while (Impl::TimeoutRecord* record = timeouts_->takeExpired()) {
    letGo(timeoutLink2TimerWheelEvent(record));
  }
  while (timersExpiryingSoon_->skipRemoved()) letGo(timersExpiryingSoon_->takeFirst());
}

void TimerWheel::setCurrentTime(double now) {
  const auto tick = clockTick(now);
  TARVO_TRACE(timerWheelTrace, 8, "advance time to {} tick {}", now, tick);
  timeouts_->advance(tick);
}

void TimerWheel::timerStart(TimerWheelEvent* event, double delay) {
  // One of many timers is seldom in the cache; it is fetched while the clock is read.
  __builtin_prefetch(event, 1);
  __builtin_prefetch(&event->expirationTime_, 1);
  timerStartFrom(event, Tarvo::time(), delay);
}

void TimerWheel::timerStartFrom(TimerWheelEvent* event, double now, double delay) {
  if (delay == infinity) return timerStop(event);
  const double expiry = std::min(now + delay, std::numeric_limits<double>::max());
  TARVO_ASSERT(!std::isnan(expiry), "a delay of {} seconds from {}", delay, now);
  if (expiry == event->expirationTime_) return;
  const auto tick = expiryTick(expiry);
  const bool stays = mayStay(*event, tick);
  if (stays) {
    TARVO_TRACE(timerWheelTrace, 9, "timer {} del timeout", event);
  } else if (event->runs()) {
    timerStop(event);
  }
  event->expirationTime_ = expiry;
  TARVO_TRACE(timerWheelTrace, 9, "timer {} set timeout {} expire at {} tick {}", event, delay,
              expiry, tick);
  if (!stays) {
    timeouts_->add(*event, tick);
    event->stateIs(inTimerWheel);
  }
  if (masterExpiry_ <= expiry) return;
  try {
    setMasterTimer(now);
  } catch (...) {
    timerStop(event);  // a start that failed has started nothing
    throw;
  }
}

bool TimerWheel::mayStay(const TimerWheelEvent& event, Tick tick) const {
  return event.runs() && event.state() == inTimerWheel && event.expires_ <= tick &&
         timeouts_->holds(event) && !Platform::fastForward();
}

TimerWheel& TimerWheel::otherWheelOf(const TimerWheelEvent& event) const {
  TimerWheel* wheel = loop_ != nullptr ? loop_->wheels() : nullptr;
  while (wheel != nullptr && !wheel->timeouts_->holds(event)) wheel = wheel->nextOfThread_;
  TARVO_CHECK(wheel != nullptr && "the timer runs on a wheel of another thread");
  return *wheel;
}

void TimerWheel::timerStop(TimerWheelEvent* event) {
  if (!event->runs()) {
    TARVO_TRACE(timerWheelTrace, 9, "timer {} del timeout, not running", event);
    return;
  }
  if (!timeouts_->holds(*event)) [[unlikely]]
    return otherWheelOf(*event).timerStop(event);
  TARVO_TRACE(timerWheelTrace, 9, "timer {} del timeout", event);
  switch (event->state()) {
    case inTimerWheel:
      timeouts_->remove(*event);
      break;
    case inTimersExpiryingSoon:
      timersExpiryingSoon_->remove(*event);
      break;
    case notLinked:
      TARVO_FAIL("Not linked but expirationTime={}", event->expirationTime_);
  }
  event->stateIs(notLinked);
  event->expirationTime_ = infinity;
  if (!timeouts_->hasPending() && loop_ != nullptr) {
    loop_->attention |= Impl::LoopWords::wheelMayBeEmpty;  // with its master timer still armed
  }
}

bool TimerWheel::armedForNothing() const {
  return masterExpiry_ != infinity && !timeouts_->hasPending() && !timeouts_->hasExpired() &&
         !timersExpiryingSoon_->skipRemoved();
}

void TimerWheel::timerExpired(TimerWheelEvent* event) const {
  TARVO_TRACE(timerWheelTrace, 9, "timer {} expired", event);
  event->expirationTime_ = infinity;
  event->timeout();
}

void TimerWheel::setMasterTimer() { setMasterTimer(Tarvo::time()); }

void TimerWheel::setMasterTimer(double now) {
  setCurrentTime(now);
  double delay = infinity;
  double expiry = infinity;

  if (timersExpiryingSoon_->skipRemoved()) {
    expiry = timersExpiryingSoon_->firstExpiry();
    delay = std::max(0.0, expiry - now);
    TARVO_TRACE(timerWheelTrace, 8,
                "has {} timers, firstExpiryTime={} now={}, set master timer timeout {}",
                expiry <= now ? "expired" : "scheduled", expiry, now, delay);
  }
  // A timer started into the same tick may be due before them.
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
  masterExpiry_ = infinity;  // in case arming throws
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
  } catch (...) {
    Impl::passCancellation();
    if (self == nullptr || self.use_count() > 1) throw;
    // The caller would ask this wheel how to handle the exception, but it is about to be destroyed.
    Impl::keepExceptionForLoop();
  }
}

void TimerWheel::serve() {
  TARVO_TRACE(timerWheelTrace, 8, "master timer expired");
  const double now = Tarvo::time();
  setCurrentTime(now);
  try {
    takeDueTimers();
    serveDue(now);
  } catch (...) {
    Impl::passCancellation();
    const auto failure = std::current_exception();
    try {
      setMasterTimer();           // the next loop serves the other due timers
    } catch (const Exception&) {  // the first failure says more
    }
    std::rethrow_exception(failure);
  }
  setMasterTimer();
}

// Moves the timers whose tick has come from the wheel to the list of exact times. The list must be
// sorted on every way out, since timers may have been appended before an exception.
void TimerWheel::takeDueTimers() {
  struct Sorted {
    ~Sorted() { times.sort(); }
    ExactTimes& times;
  } const sorted{*timersExpiryingSoon_};
  while (Impl::TimeoutRecord* record = timeouts_->takeExpired()) {
    TimerWheelEvent* event = timeoutLink2TimerWheelEvent(record);
    const Tick tick = expiryTick(event->expirationTime_);
    if (tick > timeouts_->now()) {  // it was put off without being moved
      timeouts_->add(*event, tick);
      continue;
    }
    try {
      timersExpiryingSoon_->append(*event);
    } catch (const std::bad_alloc&) {
      timeouts_->add(*event, tick);
      throw;
    }
    event->stateIs(notLinked);
    event->stateIs(inTimersExpiryingSoon);
  }
}

void TimerWheel::serveDue(double now) {
  // A callback may start and stop any timer, and may even call timeout() of this wheel.
  while (timersExpiryingSoon_->skipRemoved()) {
    if (timersExpiryingSoon_->firstExpiry() > now) {
      TARVO_TRACE(timerWheelTrace, 9, "Defer processing timers with expiry time {} > now {}",
                  timersExpiryingSoon_->firstExpiry(), now);
      return;
    }
    TimerWheelEvent* event = timersExpiryingSoon_->takeFirst();
    event->stateIs(notLinked);
    timerExpired(event);
  }
}

namespace {

std::shared_ptr<TimerWheel> makeWheel(Platform::EventPriority priority) {
  return std::allocate_shared<TimerWheel>(Allocator<TimerWheel>(), priority);
}

// Not a static object, which might be destroyed before its users; guarded by the global lock.
std::shared_ptr<TimerWheel>* processWheel = nullptr;

void releaseProcessWheel(void*) {
  const Platform::LocoGuard guard;
  delete std::exchange(processWheel, nullptr);
}

}  // namespace

std::shared_ptr<TimerWheel> getTimerWheel() {
  Impl::ThreadLoop& loop = Impl::ThreadLoop::own();
  if (hasThreadLocalSingletons()) {
    std::shared_ptr<void>& wheel = loop.part(Impl::ThreadLoop::Part::wheel);
    if (wheel == nullptr) wheel = makeWheel(Platform::eventPriorityDefault);
    return std::static_pointer_cast<TimerWheel>(wheel);
  }
  const Platform::LocoGuard guard;
  if (processWheel == nullptr) {
    loop.part(Impl::ThreadLoop::Part::processWheel) =
        std::shared_ptr<void>(static_cast<void*>(nullptr), releaseProcessWheel);
    processWheel = new std::shared_ptr<TimerWheel>(makeWheel(Platform::eventPriorityDefault));
  }
  return *processWheel;
}

std::shared_ptr<TimerWheel> getTimerWheelForTaskScheduler(Platform::EventPriority priority) {
  return makeWheel(priority);
}

}  // namespace Tarvo
