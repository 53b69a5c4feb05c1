#include "platform/libevent/SchedulerCallback.h"

#include "Tarvo/Allocator.h"
#include "Tarvo/LibeventFactory.h"
#include "platform/libevent/DeferredFdControl.h"
#include "platform/libevent/LoopWakes.h"
#include "platform/libevent/ThreadLoop.h"

namespace Tarvo::Impl {

SchedulerCallback::~SchedulerCallback() {
  if (threadWords->wakes != nullptr) threadWords->wakes->lookAfterAll();
}

void SchedulerCallback::requestCallback() {
  LibeventCallbackControl::requestCallback();
  // Timers without delay that were armed before this one come due before it: they are active when
  // the callback runs.
  dueTimersArmed_ = threadWords->dueTimersArmed;
}

void SchedulerCallback::requestSoon() {
  // In virtual time the loop jumps from timer to timer, so there the callback must be a timer.
  if (threadWords->fresh && !leFastForward()) {
    activate();
  } else {
    SchedulerCallback::requestCallback();
  }
}

void SchedulerCallback::timeout() {
  // Requests made by tasks are not fresh: two schedulers that wake each other would otherwise keep
  // the turn from ending.
  threadWords->fresh = false;
  LibeventCallbackControl::timeout();
}

SchedulerCallback::Slice::Slice(const SchedulerCallback& callback, TimePoint now,
                                std::chrono::nanoseconds length)
    // Timers armed before the request are active by now, and goesOn() looks at active events
    // anyway.
    : dueTimersArmed_(callback.dueTimersArmed_),
      end_(length < threadWords->endOfLoop - now ? now + length : threadWords->endOfLoop) {
  // event_base_loopexit() ends the loop after the present turn, so one step must do.
  event_base* base = threadWords->usableBase;
  if (base != nullptr && event_base_got_exit(base) != 0) end_ = now;
  if (threadWords->wakes != nullptr) threadWords->wakes->sliceBegins();
  if (base != nullptr && now < end_ && !leFastForward()) threadWords->inSlice = true;
}

SchedulerCallback::Slice::~Slice() {
  if (!threadWords->inSlice) return;
  threadWords->inSlice = false;
  if (anyPollPending()) endSlice();
}

bool SchedulerCallback::Slice::goesOn(TimePoint now) const {
  event_base* base = threadWords->usableBase;  // null after a fork
  if (now >= end_ || base == nullptr || leFastForward()) return false;
  if (threadWords->dueTimersArmed != dueTimersArmed_) return false;
  if (event_base_get_num_events(base, EVENT_BASE_COUNT_ACTIVE) != 0 ||
      event_base_got_break(base) != 0) {
    return false;
  }
  if (LoopWakes* wakes = threadWords->wakes; wakes != nullptr && wakes->any()) {
    wakes->serveInSlice();
  }
  return true;
}

bool SchedulerCallback::Slice::mayWait() const {
  LoopWakes* wakes = threadWords->wakes;
  return wakes == nullptr || wakes->fallsAsleep();
}

std::shared_ptr<SchedulerCallback> getSchedulerCallback(Platform::CallbackHandler* handler) {
  return std::allocate_shared<SchedulerCallback>(Allocator<SchedulerCallback>(), handler);
}

}  // namespace Tarvo::Impl
