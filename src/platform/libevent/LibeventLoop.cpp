#include <event2/event.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>

#include "platform/libevent/LibeventTrace.h"

#include "Tarvo/LibeventControls.h"
#include "Tarvo/LibeventFactory.h"
#include "platform/libevent/EventTime.h"
#include "platform/libevent/LibeventBase.h"
#include "platform/libevent/VirtualTime.h"
#include "platform/libevent/VirtualTimers.h"

namespace Tarvo {

using Impl::addTimeout;
using Impl::libeventTrace;

EvLoopBreak::EvLoopBreak(const timeval& timeout) {
  event_base* base = leInit();
  TARVO_TRACE(libeventTrace, 8, "{} timeout {}", &event_, timeout);
  event_assign(&event_, base, -1, 0, handleBaseLoopBreak, &event_);
  eventPrioritySet(&event_, Platform::eventPriorityDefault);
  addTimeout(event_, timeout);
}

EvLoopBreak::~EvLoopBreak() {
  TARVO_TRACE(libeventTrace, 9, "{}", &event_);
  Impl::deleteEvent(event_);
}

void EvLoopBreak::handleBaseLoopBreak(evutil_socket_t, short, void* arg) {
  TARVO_TRACE(libeventTrace, 8, "{}", arg);
  event_base_loopbreak(leInit());
  Impl::deleteEvent(*static_cast<event*>(arg));
}

namespace {

using Limit = Impl::ThreadLoop::Limit;

int dispatch(Limit limit) { return Impl::ThreadLoop::own().dispatch(limit); }

constexpr double infinity = std::numeric_limits<double>::infinity();

/// While it exists, the slices of schedulers end with the loop's time limit.
class LimitedTurn {
 public:
  explicit LimitedTurn(const timeval& limit)
      : words_(*Impl::threadWords), outer_(words_.endOfLoop) {
    constexpr auto farthest = std::chrono::hours(24 * 365 * 100);
    const auto length = std::chrono::seconds(limit.tv_sec);
    if (length >= farthest) return;
    words_.endOfLoop =
        std::chrono::steady_clock::now() + length + std::chrono::microseconds(limit.tv_usec);
  }
  LimitedTurn(const LimitedTurn&) = delete;
  LimitedTurn& operator=(const LimitedTurn&) = delete;
  ~LimitedTurn() { words_.endOfLoop = outer_; }

 private:
  Impl::LoopWords& words_;
  std::chrono::steady_clock::time_point outer_;
};

/// Jumps to the first timer, or by `maxSeconds` when that is sooner, and serves one pass. Does not
/// test the switch of virtual time: a handler may have turned it off since the caller did.
int jumpAndServe(double maxSeconds) {
  if (Impl::insideLoop()) return dispatch(Limit::some);  // fails; the clock must not jump
  const timeval limit = Impl::limitToTimeval(maxSeconds);
  timeval delay{0, 0};
  const bool hasTimer = Impl::delayToFirstTimer(&delay);
  // Without a timer and without a limit there is nowhere to jump to.
  const bool toLimit = maxSeconds != infinity && (!hasTimer || !Impl::isEarlier(delay, limit));
  return eventLoopFastForward(toLimit ? &limit : &delay);
}

/// Jumps from timer to timer until the thread's clock has gone on by `maxSeconds`.
int fastForwardLoop(double maxSeconds) {
  const double end = Tarvo::time() + std::min(maxSeconds, Impl::longestDelay);
  int result = 0;
  do {
    const double left = std::max(0.0, end - Tarvo::time());
    if (!leFastForward()) return eventLoopTimeout(left);  // turned off meanwhile
    result = jumpAndServe(left);
  } while (result >= 0 && !Impl::ThreadLoop::own().stopped() && Tarvo::time() < end);
  return result;
}

/// Whether there is a timer to jump to, apart from the master timers of empty wheels.
bool hasTimerToWaitFor(timeval* delay) {
  if (!Impl::insideLoop() && Impl::ThreadLoop::own().onlyEmptyWheelsLeft()) return false;
  return Impl::delayToFirstTimer(delay);
}

/// Jumps from timer to timer while there is one, then waits for events of other kinds.
int fastForwardWithoutLimit() {
  timeval delay;
  while (leFastForward() && hasTimerToWaitFor(&delay)) {
    const int result = jumpAndServe(infinity);
    if (result < 0 || Impl::ThreadLoop::own().stopped()) return result;
  }
  return doLeEventLoop();
}

}  // namespace

int doLeEventLoop() {
  leInit();
  timeval delta;
  if (leFastForward() && !Impl::insideLoop() && hasTimerToWaitFor(&delta)) {
    applyFastForwardDelta(&delta);
  }
  return dispatch(Limit::none);
}

int doLeEventLoop(double maxSeconds) {
  TARVO_TRACE(libeventTrace, 5, "timeout {}", maxSeconds);
  leInit();
  TARVO_ASSERT(!std::isnan(maxSeconds), "a limit of NaN seconds");
  if (!leFastForward()) return eventLoopTimeout(maxSeconds);
  return maxSeconds == infinity ? fastForwardWithoutLimit() : fastForwardLoop(maxSeconds);
}

int doLeEventLoopInWaitfor(double maxSeconds) {
  TARVO_TRACE(libeventTrace, 5, "maxTimeout {}", maxSeconds);
  leInit();
  return leFastForward() ? jumpAndServe(maxSeconds) : eventLoopTimeout(maxSeconds);
}

int eventLoopTimeout(double seconds) {
  TARVO_TRACE(libeventTrace, 5, "timeout {}", seconds);
  const timeval limit = Impl::delayToTimeval(seconds);
  std::optional<EvLoopBreak> loopBreak;
  std::optional<LimitedTurn> limited;
  if (seconds != infinity) {
    loopBreak.emplace(limit);
    limited.emplace(limit);
  }
  return dispatch(loopBreak ? Limit::some : Limit::none);
}

int eventLoopFastForward(const timeval* delta) {
  applyFastForwardDelta(delta);
  Impl::ThreadLoop::own().virtualTimers()->activateDue();
  const EvLoopBreak loopBreak(timeval{0, 0});
  return dispatch(Limit::some);
}

int eventLoopFastForwardToFirstTimer(double maxSeconds) {
  TARVO_TRACE(libeventTrace, 5, "maxTimeout {}", maxSeconds);
  TARVO_ASSERT(leFastForward(), "Called without fastForward enabled");
  return jumpAndServe(maxSeconds);
}

double waitForDefaultTimeout() {
  static const double limit = [] {
    const char* text = std::getenv("WAITFOR_DEFAULT");
    if (text == nullptr) return infinity;
    try {
      const double seconds = std::stod(text);
      if (!std::isnan(seconds)) return seconds;
    } catch (const std::logic_error&) {  // no number, or out of range
    }
    std::cerr << "Parsing the WAITFOR_DEFAULT env. variable failed" << std::flush;
    return infinity;
  }();
  return limit;
}

}  // namespace Tarvo
