#include <cmath>
#include <limits>

#include "platform/libevent/LibeventTrace.h"

#include "Tarvo/Allocator.h"
#include "Tarvo/LibeventControls.h"
#include "Tarvo/LibeventFactory.h"
#include "platform/libevent/EventTime.h"
#include "platform/libevent/LibeventBase.h"
#include "platform/libevent/Notification.h"
#include "platform/libevent/VirtualTimers.h"

namespace Tarvo {

using Impl::addTimeout;
using Impl::libeventTrace;

LibeventTimerControl::LibeventTimerControl(Platform::TimeoutHandler* handler,
                                           Platform::EventPriority priority)
    : handler_(handler), priority_(priority) {
  assign();
}

LibeventTimerControl::~LibeventTimerControl() { LibeventTimerControl::delTimeout(); }

void LibeventTimerControl::assign() {
  event_assign(&event_, leInit(), -1, 0, handleTimeout, this);
  eventPrioritySet(&event_, priority_);
}

void LibeventTimerControl::setTimeout(double seconds) {
  const timeval delay = Impl::delayToTimeval(seconds);
  delTimeout();
  TARVO_TRACE(libeventTrace, 9, "Timer {} set timeout {}", this, seconds);
  if (seconds == std::numeric_limits<double>::infinity()) return;
  bind();
  // libevent counts a delay from the time that it cached at the start of its turn, which may be
  // long ago. Without this the timer would fire early.
  if (timerisset(&delay)) {
    event_base_update_cache_time(event_get_base(&event_));
    if (leFastForward()) return Impl::ThreadLoop::own().virtualTimers()->add(virtual_, delay);
  } else {
    ++Impl::threadWords->dueTimersArmed;
  }
  addTimeout(event_, delay);
}

void LibeventTimerControl::setTimeoutToNow() {
  delTimeout();
  TARVO_TRACE(libeventTrace, 9, "Timer {} set timeout {}", this, 0.0);
  bind();
  ++Impl::threadWords->dueTimersArmed;
  addTimeout(event_, {0, 0});
}

void LibeventTimerControl::activate() {
  delTimeout();
  TARVO_TRACE(libeventTrace, 9, "Timer {} made active", this);
  bind();
  event_active(&event_, EV_TIMEOUT, 1);
}

void LibeventTimerControl::bind() {
  if (event_.ev_base == leInit()) {
    eventPrioritySet(&event_, priority_);
  } else {
    assign();  // the thread has freed its base and made another
  }
}

void LibeventTimerControl::delTimeout() {
  TARVO_TRACE(libeventTrace, 9, "Timer {} del timeout", this);
  if (virtual_.waitsIn != nullptr) virtual_.waitsIn->remove(virtual_);
  Impl::deleteEvent(event_);
}

bool LibeventTimerControl::armed() const {
  return virtual_.waitsIn != nullptr || event_pending(&event_, EV_TIMEOUT, nullptr) != 0;
}

double LibeventTimerControl::remainingTimeout() const {
  if (virtual_.waitsIn != nullptr) return virtual_.waitsIn->remaining(virtual_);
  timeval when;
  if (event_pending(&event_, EV_TIMEOUT, &when) == 0) {
    return std::numeric_limits<double>::infinity();
  }
  timeval now;
  gettimeofday(&now, nullptr);
  return Impl::isEarlier(when, now) ? 0.0 : Impl::toSeconds(Impl::difference(when, now));
}

void LibeventTimerControl::handleTimeout(evutil_socket_t, short, void* arg) {
  Impl::runNotification([arg] { static_cast<LibeventTimerControl*>(arg)->handler(); });
}

void LibeventTimerControl::handler() {
  TARVO_TRACE(libeventTrace, 9, "Timer {} expired", this);
  Platform::TimeoutHandler* handler = handler_;  // the notification may destroy this control
  try {
    handler->timeout();
  } catch (...) {
    Impl::passCancellation();
    if (!handler->handleTimeoutException()) throw;
    TARVO_TRACE(libeventTrace, 9, "Timeout notification exception was handled");
  }
}

std::shared_ptr<Platform::TimerControl> getLeTimerControl(Platform::TimeoutHandler* handler) {
  return getLeTimerControl(handler, Platform::eventPriorityDefault);
}

std::shared_ptr<Platform::TimerControl> getLeTimerControl(Platform::TimeoutHandler* handler,
                                                          Platform::EventPriority priority) {
  return std::allocate_shared<LibeventTimerControl>(Allocator<LibeventTimerControl>(), handler,
                                                    priority);
}

}  // namespace Tarvo
