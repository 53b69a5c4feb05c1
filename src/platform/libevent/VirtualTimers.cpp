#include "platform/libevent/VirtualTimers.h"

#include <event2/event.h>

#include <algorithm>

#include "Tarvo/LibeventFactory.h"
#include "platform/libevent/LibeventBase.h"
#include "platform/libevent/LibeventTimeouts.h"
#include "platform/libevent/Notification.h"

namespace Tarvo::Impl {

VirtualTimers::VirtualTimers(event_base* base) : base_(base) {
  event_assign(&first_, base, -1, 0, firstIsDue, this);
  // The first timer may be one of high priority. When this event fires, each due timer becomes
  // active with its own priority.
  eventPrioritySet(&first_, Platform::eventPriorityStrictHigh);
}

VirtualTimers::~VirtualTimers() {
  deleteEvent(first_);
  while (!timers_.empty()) unlink(*timers_.begin());
}

timeval VirtualTimers::now() const { return sum(baseNow(base_), jumped_); }

void VirtualTimers::add(VirtualTimer& timer, const timeval& delay) {
  timer.due = sum(now(), delay);
  // Before the insertion, because this may throw.
  if (timers_.empty() || isEarlier(timer.due, timers_.begin()->due)) expect(timer);
  timers_.insert(timer);
  timer.waitsIn = this;
}

void VirtualTimers::remove(VirtualTimer& timer) {
  const bool wasFirst = &timer == &*timers_.begin();
  unlink(timer);
  // While first_ is not pending it is active or running, and activateDue() arms it for the next
  // timer.
  if (!wasFirst || !expecting()) return;
  try {
    expectFirst();
  } catch (const MemoryResourceException&) {
    // first_ stays armed for the removed timer. When it fires, activateDue() finds nothing due and
    // arms it anew.
  }
}

double VirtualTimers::remaining(const VirtualTimer& timer) const {
  return std::max(0.0, toSeconds(difference(timer.due, now())));
}

void VirtualTimers::activateDue() {
  try {
    const timeval present = now();
    while (!timers_.empty() && !isEarlier(present, timers_.begin()->due)) {
      VirtualTimer& timer = *timers_.begin();
      timer.ev.ev_timeout = difference(timer.due, jumped_);
      event_active(&timer.ev, EV_TIMEOUT, 0);
      unlink(timer);
    }
    expectFirst();
  } catch (const MemoryResourceException&) {
    event_active(&first_, EV_TIMEOUT, 0);  // the next turn tries again
    throw;
  }
}

int VirtualTimers::uncounted() const {
  return static_cast<int>(timers_.size()) - (expecting() ? 1 : 0);
}

void VirtualTimers::firstIsDue(int, short, void* arg) {
  runNotification([arg] { static_cast<VirtualTimers*>(arg)->activateDue(); });
}

bool VirtualTimers::expecting() const { return event_pending(&first_, EV_TIMEOUT, nullptr) != 0; }

void VirtualTimers::expect(const VirtualTimer& timer) {
  addTimeout(first_, difference(timer.due, now()));
}

void VirtualTimers::expectFirst() {
  if (timers_.empty()) {
    deleteEvent(first_);
  } else {
    expect(*timers_.begin());
  }
}

void VirtualTimers::unlink(VirtualTimer& timer) {
  timers_.erase(timers_.iterator_to(timer));
  timer.waitsIn = nullptr;
}

}  // namespace Tarvo::Impl
