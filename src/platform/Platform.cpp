#include "Tarvo/Platform.h"

#include <ctime>

#include "Tarvo/Assert.h"
#include "Tarvo/LibeventFactory.h"
#include "platform/LibraryTime.h"
#include "platform/libevent/EventTime.h"
#include "platform/libevent/ThreadLoop.h"

namespace Tarvo {

double time() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return Impl::libraryTime(now);
}

namespace Platform {

TimeoutHandler::~TimeoutHandler() = default;
bool TimeoutHandler::handleTimeoutException() { return false; }
CallbackHandler::~CallbackHandler() = default;
bool CallbackHandler::handleCallbackException() { return false; }
FdEventHandler::~FdEventHandler() = default;
bool FdEventHandler::handleFdException(int) { return false; }

TimerControl::~TimerControl() = default;
CallbackControl::~CallbackControl() = default;
FdControl::~FdControl() = default;

std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler) {
  return getLeTimerControl(handler);
}
std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler, EventPriority priority) {
  return getLeTimerControl(handler, priority);
}
std::shared_ptr<CallbackControl> getCallbackControl(CallbackHandler* handler) {
  return getLeCallbackControl(handler);
}
std::shared_ptr<FdControl> getFdControl(FdEventHandler* handler) { return getLeFdControl(handler); }

int doEventLoop() { return doLeEventLoop(); }
int doEventLoop(double maxSeconds) { return doLeEventLoop(maxSeconds); }

void stopEventLoop() {
  if (Impl::ThreadLoop* loop = Impl::ThreadLoop::find()) loop->stop();
}

int doEventLoopInWaitfor(double maxSeconds) { return doLeEventLoopInWaitfor(maxSeconds); }

void setFastForward(bool on) { setLeFastForward(on); }
bool fastForward() { return leFastForward(); }
void fastForwardBy(double seconds) {
  TARVO_ASSERT(fastForward(), "fast-forwarding disabled");
  const timeval delta = Impl::secondsToTimeval(seconds);
  applyFastForwardDelta(&delta);
}
void registerFastForwardChangeNotifier(void (*notifier)()) {
  leRegisterFastForwardChangeNotifier(notifier);
}

void refCountingEnabledIs(bool) { TARVO_FAIL("not available in libTarvo.so"); }
bool refCountingEnabled() { TARVO_FAIL("not available in libTarvo.so"); }
bool releaseMode() { return false; }

}  // namespace Platform

}  // namespace Tarvo
