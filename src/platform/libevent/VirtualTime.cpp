#include <event2/event.h>
#include <event2/event_struct.h>

#include <atomic>
#include <unordered_set>

#include "platform/libevent/LibeventTrace.h"

#include "Tarvo/LibeventFactory.h"
#include "platform/libevent/EventTime.h"
#include "platform/libevent/LibeventBase.h"
#include "platform/libevent/LibeventTimeouts.h"
#include "platform/libevent/LoopWakes.h"
#include "platform/libevent/VirtualTime.h"

namespace Tarvo {

using Impl::libeventTrace;

namespace {

constexpr suseconds_t microsecondsPerSecond = 1000000;

std::atomic<bool> fastForward{false};  // only the main thread writes it

/// A jump goes this many microseconds beyond the first timer's expiry: the timer must be due
/// although the base's clock has coarse steps.
constexpr suseconds_t extraDelay = 100;

/// Not locked: only the main thread registers and calls notifiers.
std::unordered_set<void (*)()>& notifiers() {
  static auto& instance = *new std::unordered_set<void (*)()>;
  return instance;
}

}  // namespace

void setLeFastForward(bool on) {
  leInit();
  TARVO_ASSERT(Impl::ThreadLoop::own().onMainThread(), "FastForward invoked from non-main thread");
  if (fastForward.exchange(on, std::memory_order_relaxed) == on) return;
  const auto all = notifiers();  // a copy: a notifier may register another
  for (const auto notifier : all) notifier();
}

bool leFastForward() { return fastForward.load(std::memory_order_relaxed); }

void leRegisterFastForwardChangeNotifier(void (*notifier)()) { notifiers().insert(notifier); }

double leVirtualTimeOffset() { return Impl::threadWords->virtualOffset; }

void applyFastForwardDelta(const timeval* delta) {
  event_base_timeout_subtract_offset(leInit(), delta);
  Impl::ThreadLoop& loop = Impl::ThreadLoop::own();
  timeval offset{loop.offset().tv_sec + delta->tv_sec, loop.offset().tv_usec + delta->tv_usec};
  if (offset.tv_usec >= microsecondsPerSecond) {
    offset.tv_sec += 1;
    offset.tv_usec -= microsecondsPerSecond;
  }
  loop.offsetIs(offset);
  TARVO_TRACE(libeventTrace, 2, "Increasing virtual time offset by {} to {}", *delta, offset);
}

bool fastForwardDelayToFirstTimer(timeval* out) {
  TARVO_ASSERT(leFastForward(), "Called without fast forward enabled");
  return Impl::delayToFirstTimer(out);
}

bool Impl::delayToFirstTimer(timeval* out) {
  event_base* base = leInit();
  if (threadWords->wakes != nullptr) threadWords->wakes->serve();
  if (event_base_get_num_events(base, EVENT_BASE_COUNT_ACTIVE) > 0) {
    *out = {0, 0};
    return true;
  }
  timeval first;
  if (event_base_get_first_timeout(base, &first) != 0) {
    TARVO_TRACE(libeventTrace, 9, "no timers");
    return false;
  }
  const timeval now = Impl::baseNow(base);
  if (!Impl::isEarlier(now, first)) {
    TARVO_TRACE(libeventTrace, 9, "first timer expired at {} now {} return zero delta", first, now);
    *out = {0, 0};
    return true;
  }
  const timeval delta = Impl::difference(first, now);
  const timeval extra{0, extraDelay};
  *out = {delta.tv_sec, delta.tv_usec + extraDelay};
  if (out->tv_usec >= microsecondsPerSecond) {
    out->tv_sec += 1;
    out->tv_usec -= microsecondsPerSecond;
  }
  TARVO_TRACE(libeventTrace, 9,
              "first timer will at {} now {} delta {} extraDelay {} return delta {}", first, now,
              delta, extra, *out);
  return true;
}

}  // namespace Tarvo
