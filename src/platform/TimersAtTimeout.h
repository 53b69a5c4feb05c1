#ifndef TARVO_SRC_PLATFORM_TIMERSATTIMEOUT_H
#define TARVO_SRC_PLATFORM_TIMERSATTIMEOUT_H

#include "Tarvo/TimerWheel.h"
#include "platform/TimerWheelTrace.h"

namespace Tarvo {

/// The events of one exact expiry, in the order in which the wheel handed them out.
class TimerWheel::TimersAtTimeout : private Impl::TimeoutList {
 public:
  TimersAtTimeout() = default;
  ~TimersAtTimeout() {
    Impl::checkInDestructor([this] { TARVO_ASSERT(empty(), "Destroyed while non-empty"); });
  }

  using TimeoutList::empty;
  using TimeoutList::first;

  void append(Impl::TimeoutRecord& event) {
    TARVO_ASSERT(event.pending_ == nullptr, "Event {} linked to {}",
                 timeoutLink2TimerWheelEvent(&event), static_cast<const void*>(event.pending_));
    TimeoutList::append(event);
  }
  void remove(Impl::TimeoutRecord& event) {
    TARVO_ASSERT(event.pending_ == this, "pending set to {}",
                 static_cast<const void*>(event.pending_));
    TimeoutList::remove(event);
  }
};

}  // namespace Tarvo

#endif
