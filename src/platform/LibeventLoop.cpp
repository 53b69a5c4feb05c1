#include <event2/event.h>

#include <limits>
#include <optional>

#include "platform/LibeventTrace.h"

#include "Tarvo/LibeventFactory.h"
#include "platform/EventTime.h"
#include "platform/LibeventBase.h"
#include "platform/LibeventControls.h"

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
  event_del(&event_);
}

void EvLoopBreak::handleBaseLoopBreak(evutil_socket_t, short, void* arg) {
  TARVO_TRACE(libeventTrace, 8, "{}", arg);
  event_base_loopbreak(leInit());
  event_del(static_cast<event*>(arg));
}

int doLeEventLoop() { return Impl::dispatchBase(leInit()); }

int doLeEventLoop(double maxSeconds) {
  TARVO_TRACE(libeventTrace, 5, "timeout {}", maxSeconds);
  leInit();
  return eventLoopTimeout(maxSeconds);
}

int eventLoopTimeout(double seconds) {
  TARVO_TRACE(libeventTrace, 5, "timeout {}", seconds);
  const timeval limit = Impl::delayToTimeval(seconds);
  std::optional<EvLoopBreak> loopBreak;
  if (seconds != std::numeric_limits<double>::infinity()) loopBreak.emplace(limit);
  return Impl::dispatchBase(leInit());
}

}  // namespace Tarvo
