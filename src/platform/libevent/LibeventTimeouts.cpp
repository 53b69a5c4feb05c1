/// Two operations on a base's timeouts that libevent does not offer. They read and write the expiry
/// that libevent 2.1 keeps in each event, which its headers show but do not promise. So before
/// the first use the version is checked, and the operations are tried on a base of their own.

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

// An event of a common-timeout queue keeps a mark and the queue's number above its microseconds.
constexpr long microsecondsMask = 0x000fffff;

bool hasTimeout(const event* ev) { return (ev->ev_evcallback.evcb_flags & EVLIST_TIMEOUT) != 0; }
bool isInternal(const event* ev) { return (ev->ev_evcallback.evcb_flags & EVLIST_INTERNAL) != 0; }

struct Earliest {
  timeval when{0, 0};
  bool found = false;
};

int findEarliest(const event_base*, const event* ev, void* arg) {
  auto& earliest = *static_cast<Earliest*>(arg);
  // Internal events stand for the head of a queue, whose members are visited themselves.
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

/// When the event is due, as libevent itself tells.
double dueAt(const event& ev) {
  timeval when{0, 0};
  event_pending(&ev, EV_TIMEOUT, &when);
  return toSeconds(when);
}

/// One timeout of each kind, far apart, on a base of its own.
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
    constexpr double tolerance = 100;  // the wall clock, in which libevent tells it, may be set
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
