#ifndef TARVO_SRC_PLATFORM_NOTIFICATION_H
#define TARVO_SRC_PLATFORM_NOTIFICATION_H

#include "foundation/PassCancellation.h"
#include "platform/libevent/ThreadLoop.h"

namespace Tarvo::Impl {

// The way of an exception. A callback of libevent is called from C code, and an exception that
// crosses it leaves the base unusable for ever. So every callback runs inside runNotification(),
// which keeps the exception and breaks the loop; ThreadLoop::dispatch() throws it again when the
// base has returned. Pending events stay pending and are served by the next loop.

/// Keeps the exception in flight for the caller of the thread's loop and breaks that loop.
void keepExceptionForLoop() noexcept;

/// Runs one callback of libevent. `fresh` is false when this library itself has made the event
/// active; see LoopWords::fresh.
template <typename Notification>
void runNotification(Notification notification, bool fresh = true) {
  threadWords->fresh = fresh;
  try {
    notification();
  } catch (...) {
    passCancellation();
    keepExceptionForLoop();
  }
  threadWords->fresh = false;
  if (threadWords->attention != LoopWords::nothing) [[unlikely]] {
    ThreadLoop::own().attend();
  }
}

}  // namespace Tarvo::Impl

#endif
