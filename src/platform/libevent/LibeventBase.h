#ifndef TARVO_SRC_PLATFORM_LIBEVENTBASE_H
#define TARVO_SRC_PLATFORM_LIBEVENTBASE_H

#include <sys/time.h>

#include <memory>

#include "platform/libevent/ThreadLoop.h"

struct event;

namespace Tarvo::Impl {

/// Marks the base of a forked child's only thread as still shared with the parent. It is rebuilt
/// before it is next used.
void baseIsShared();

/// Rebuilds a base that is still shared with the parent.
inline void leaveParentAlone() {
  if ((threadWords->attention & LoopWords::sharedWithParent) != 0) [[unlikely]] {
    ThreadLoop::own().rebuild();
  }
}

/// Whether the calling thread is inside its loop.
inline bool insideLoop() { return threadWords->dispatching; }

/// Deletes an event. In a forked child the parent's registrations are left alone.
void deleteEvent(event& ev);

/// Adds an assigned event with a timeout; throws MemoryResourceException when there is no room for
/// it, since an event that never comes would go unnoticed.
void addTimeout(event& ev, const timeval& timeout);

}  // namespace Tarvo::Impl

#endif
