#include "platform/libevent/SchedulerCallback.h"

#include "Tarvo/Allocator.h"
#include "Tarvo/LibeventFactory.h"
#include "platform/libevent/ThreadLoop.h"

namespace Tarvo::Impl {

void SchedulerCallback::requestCallback() {
  LibeventCallbackControl::requestCallback();
  // What was armed before is due before, and active by the time of the callback.
  dueTimersArmed_ = threadWords->dueTimersArmed;
}

void SchedulerCallback::requestSoon() {
  // Virtual time goes from timer to timer.
  if (threadWords->fresh && !leFastForward()) {
    activate();
  } else {
    SchedulerCallback::requestCallback();
  }
}

void SchedulerCallback::timeout() {
  // What tasks ask for is not new: two schedulers that wake each other would hold the turn for
  // ever.
  threadWords->fresh = false;
  LibeventCallbackControl::timeout();
}

SchedulerCallback::Slice::Slice(const SchedulerCallback& callback, TimePoint now,
                                std::chrono::nanoseconds length)
    // Timers that were armed before the request became active with it.
    : dueTimersArmed_(callback.dueTimersArmed_),
      end_(length < threadWords->endOfLoop - now ? now + length : threadWords->endOfLoop) {
  // A loop that was told to end does so after the present turn.
  event_base* base = threadWords->usableBase;
  if (base != nullptr && event_base_got_exit(base) != 0) end_ = now;
}

bool SchedulerCallback::Slice::goesOn(TimePoint now) const {
  event_base* base = threadWords->usableBase;  // null after a fork
  if (now >= end_ || base == nullptr || leFastForward()) return false;
  if (threadWords->dueTimersArmed != dueTimersArmed_) return false;
  return event_base_get_num_events(base, EVENT_BASE_COUNT_ACTIVE) == 0 &&
         event_base_got_break(base) == 0;
}

std::shared_ptr<SchedulerCallback> getSchedulerCallback(Platform::CallbackHandler* handler) {
  return std::allocate_shared<SchedulerCallback>(Allocator<SchedulerCallback>(), handler);
}

}  // namespace Tarvo::Impl
