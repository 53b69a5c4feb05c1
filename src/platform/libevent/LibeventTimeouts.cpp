/// Two operations on a base's timeouts that libevent does not offer: find the earliest, and shift
/// all. They read and write `ev_timeout`, which libevent 2.1 keeps in each event; its headers show
/// that member but do not promise it. So the first use checks the version and tries both operations
/// on a base of its own.
///
/// Shifting every timeout by the same amount keeps the order of libevent's heap, so the heap need
/// not be rebuilt.

#include "platform/libevent/LibeventTimeouts.h"

#include <event2/event.h>
#include <event2/event_struct.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "platform/libevent/LibeventTrace.h"

#include "Tarvo/LibeventFactory.h"
#include "platform/libevent/EventTime.h"
#include "platform/libevent/LibeventBase.h"
#include "platform/libevent/VirtualTimers.h"

namespace Tarvo::Impl {

namespace {

// For an event in a common-timeout queue, the bits above the microseconds hold a mark and the
// number of the queue.
constexpr long microsecondsMask = 0x000fffff;

bool hasTimeout(const event* ev) { return (ev->ev_evcallback.evcb_flags & EVLIST_TIMEOUT) != 0; }
bool isInternal(const event* ev) { return (ev->ev_evcallback.evcb_flags & EVLIST_INTERNAL) != 0; }

struct Earliest {
  timeval when{0, 0};
  bool found = false;
};

int findEarliest(const event_base*, const event* ev, void* arg) {
  auto& earliest = *static_cast<Earliest*>(arg);
  // An internal event is the timer of a common-timeout queue. The events in that queue are visited
  // too, so it can be skipped.
  if (!hasTimeout(ev) || isInternal(ev)) return 0;
  const timeval when = storedExpiry(*ev);
  if (!earliest.found || isEarlier(when, earliest.when)) earliest = {when, true};
  return 0;
}

int subtract(const event_base*, const event* visited, void* arg) {
  if (!hasTimeout(visited)) return 0;
  const auto& delta = *static_cast<const timeval*>(arg);
  timeval& expiry = const_cast<event*>(visited)->ev_timeout;
  const suseconds_t mark = expiry.tv_usec & ~microsecondsMask;
  expiry = sum(storedExpiry(*visited), {-delta.tv_sec, -delta.tv_usec});
  expiry.tv_usec |= mark;
  return 0;
}

int earliestOf(event_base* base, timeval* out) {
  Earliest earliest;
  event_base_foreach_event(base, findEarliest, &earliest);
  if (!earliest.found) return 1;
  *out = earliest.when;
  return 0;
}

void shift(event_base* base, const timeval& delta) {
  event_base_foreach_event(base, subtract, const_cast<timeval*>(&delta));
}

/// When the event is due, according to libevent.
double dueAt(const event& ev) {
  timeval when{0, 0};
  event_pending(&ev, EV_TIMEOUT, &when);
  return toSeconds(when);
}

/// Tries both operations on one timeout of each kind: plain, common, and of an I/O event.
bool operationsWork() {
  const int fd = eventfd(0, EFD_CLOEXEC);
  if (fd < 0) MemoryResourceException::throwException("no descriptor to try virtual time with");
  event_base* base = leCreateBase();
  const timeval delays[] = {{3000, 0}, {4000, 0}, {5000, 0}};
  event plain;
  event common;
  event io;
  event_assign(&plain, base, -1, 0, nullptr, nullptr);
  event_assign(&common, base, -1, 0, nullptr, nullptr);
  event_assign(&io, base, fd, EV_READ, nullptr, nullptr);
  event_add(&plain, &delays[0]);
  event_add(&common, event_base_init_common_timeout(base, &delays[1]));
  event_add(&io, &delays[2]);

  const timeval delta{1000, 1};
  const event* const events[] = {&plain, &common, &io};
  double expected[3];
  for (int i = 0; i < 3; ++i) expected[i] = dueAt(*events[i]) - toSeconds(delta);
  timeval before;
  timeval after;
  bool work = earliestOf(base, &before) == 0;
  shift(base, delta);
  work = work && earliestOf(base, &after) == 0 &&
         toSeconds(difference(before, after)) == toSeconds(delta);
  for (int i = 0; i < 3; ++i) {
    constexpr double tolerance = 100;  // event_pending() uses the wall clock, which may be set
    work = work && std::abs(dueAt(*events[i]) - expected[i]) < tolerance;
  }
  for (event* ev : {&plain, &common, &io}) event_del(ev);
  work = work && earliestOf(base, &after) != 0;
  event_base_free(base);
  close(fd);
  return work;
}

void requireKnownLayout() {
  const unsigned running = event_get_version_number() >> 16;
  TARVO_ASSERT(running == 0x0201 && LIBEVENT_VERSION_NUMBER >> 16 == 0x0201,
               "virtual time needs libevent 2.1, not {}", event_get_version());
  static const bool works = operationsWork();
  TARVO_ASSERT(works, "libevent {} keeps its timeouts in an unknown layout", event_get_version());
}

}  // namespace

timeval storedExpiry(const event& ev) {
  return {ev.ev_timeout.tv_sec, ev.ev_timeout.tv_usec & microsecondsMask};
}

timeval baseNow(event_base* base) {
  event probe;
  event_assign(&probe, base, -1, 0, nullptr, nullptr);
  eventPrioritySet(&probe, Platform::eventPriorityDefault);
  addTimeout(probe, timeval{0, 0});
  const timeval now = storedExpiry(probe);
  deleteEvent(probe);
  return now;
}

}  // namespace Tarvo::Impl

int event_base_get_first_timeout(event_base* base, timeval* out) {
  Tarvo::Impl::requireKnownLayout();
  return Tarvo::Impl::earliestOf(base, out);
}

void event_base_timeout_subtract_offset(event_base* base, const timeval* delta) {
  Tarvo::Impl::requireKnownLayout();
  Tarvo::Impl::shift(base, *delta);
  Tarvo::Impl::ThreadLoop* loop = Tarvo::Impl::ThreadLoop::find();
  if (loop == nullptr || loop->base() != base) return;
  if (Tarvo::Impl::VirtualTimers* timers = loop->virtualTimers()) timers->jumpBy(*delta);
}
