#ifndef TARVO_SRC_PLATFORM_NOTIFICATION_H
#define TARVO_SRC_PLATFORM_NOTIFICATION_H

#include "foundation/PassCancellation.h"
#include "platform/libevent/ThreadLoop.h"

namespace Tarvo::Impl {

/// Keeps the exception in flight for the caller of the thread's loop and breaks that loop. An
/// exception must not cross the event library's frames: it would leave the base unusable.
void keepExceptionForLoop() noexcept;

/// Runs one notification for the event library: what it throws waits for the caller of the loop.
/// It is fresh unless the library itself has made its event active.
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
