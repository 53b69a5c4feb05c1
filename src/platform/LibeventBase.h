#ifndef TARVO_SRC_PLATFORM_LIBEVENTBASE_H
#define TARVO_SRC_PLATFORM_LIBEVENTBASE_H

#include <sys/time.h>

#include <memory>

struct event;
struct event_base;

namespace Tarvo::Impl {

/// Dispatches the thread's base and then throws what a notification left for the loop's caller.
int dispatchBase(event_base* base);

/// Keeps an object until the running loop has returned, for exceptions that leave an object whose
/// last reference was dropped meanwhile.
void keepUntilLoopReturns(std::shared_ptr<void> object);

/// Remembers to call `release` before the thread's base is freed, for what hangs on that base.
void beforeBaseIsFreed(void (*release)());

/// Whether the calling thread is the main thread, as leRegisterBase() found it.
bool onMainThread();

/// Marks the base of a forked child's only thread as still shared with the parent. It is rebuilt
/// before it is next used.
void baseIsShared();

/// Rebuilds a base that is still shared with the parent.
void leaveParentAlone();

/// Whether the calling thread is inside its loop.
bool insideLoop();

/// Deletes an event. In a forked child the parent's registrations are left alone.
void deleteEvent(event& ev);

/// Adds an assigned event with a timeout; throws MemoryResourceException when there is no room for
/// it, since an event that never comes would go unnoticed.
void addTimeout(event& ev, const timeval& timeout);

}  // namespace Tarvo::Impl

#endif
