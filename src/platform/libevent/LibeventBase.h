#ifndef TARVO_SRC_PLATFORM_LIBEVENTBASE_H
#define TARVO_SRC_PLATFORM_LIBEVENTBASE_H

#include <sys/time.h>

#include <memory>

#include "platform/libevent/ThreadLoop.h"

struct event;

namespace Tarvo::Impl {

/// Called in a forked child: marks the base of its only thread as still shared with the parent. The
/// child's epoll descriptor is the parent's too, so a change made through it would change what the
/// parent watches. The base is rebuilt before its next use.
void markBaseShared();

/// Called around a fork, on its thread: meanwhile no other thread posts to this one.
void holdPosts() noexcept;
void releasePosts() noexcept;

/// Rebuilds a base that is still shared with the parent.
inline void leaveParentAlone() {
  if ((threadWords->attention & LoopWords::sharedWithParent) != 0) [[unlikely]] {
    ThreadLoop::own().rebuild();
  }
}

/// Whether the calling thread is inside its loop.
inline bool insideLoop() { return threadWords->dispatching; }

/// Deletes an event. In a forked child the base is rebuilt first, so that the parent's
/// registrations stay.
void deleteEvent(event& ev);

/// Adds an assigned event with a timeout. Throws MemoryResourceException when libevent has no
/// memory for it: nobody would notice a timer that never fires.
void addTimeout(event& ev, const timeval& timeout);

}  // namespace Tarvo::Impl

#endif
