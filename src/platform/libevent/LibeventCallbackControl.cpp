#include "platform/libevent/LibeventTrace.h"

#include "Tarvo/Allocator.h"
#include "Tarvo/LibeventControls.h"
#include "Tarvo/LibeventFactory.h"
#include "platform/libevent/Notification.h"

namespace Tarvo {

using Impl::libeventTrace;

LibeventCallbackControl::LibeventCallbackControl(Platform::CallbackHandler* handler)
    : LibeventTimerControl(this, Platform::eventPriorityDefault), handler_(handler) {}

LibeventCallbackControl::~LibeventCallbackControl() { LibeventCallbackControl::cancelCallback(); }

void LibeventCallbackControl::requestCallback() {
  TARVO_TRACE(libeventTrace, 9, "Callback {} request", this);
  setTimeoutToNow();
}

void LibeventCallbackControl::cancelCallback() {
  TARVO_TRACE(libeventTrace, 9, "Callback {} cancel", this);
  delTimeout();
}

bool LibeventCallbackControl::pendingCallback() const { return armed(); }

namespace {

/// Runs the callback; an exception goes to the handler first.
void offerCallback(Platform::CallbackHandler& handler) {
  try {
    handler.callback();
  } catch (...) {
    Impl::passCancellation();
    if (!handler.handleCallbackException()) throw;
    TARVO_TRACE(libeventTrace, 9, "Callback notification exception was handled");
  }
}

}  // namespace

void LibeventCallbackControl::timeout() {
  TARVO_TRACE(libeventTrace, 9, "Callback {} execute", this);
  Platform::CallbackHandler* handler = handler_;
  const Impl::Lifeline::Watch watch(lifeline());
  try {
    offerCallback(*handler);
  } catch (...) {
    Impl::passCancellation();
    if (watch.alive()) throw;
    // The timer control below would call handleTimeoutException() of this object, which the
    // callback has destroyed. Keep the exception here instead.
    Impl::keepExceptionForLoop();
  }
}

std::shared_ptr<Platform::CallbackControl> getLeCallbackControl(
    Platform::CallbackHandler* handler) {
  return std::allocate_shared<LibeventCallbackControl>(Allocator<LibeventCallbackControl>(),
                                                       handler);
}

}  // namespace Tarvo
