#ifndef TARVO_SRC_PLATFORM_LIBEVENTBASE_H
#define TARVO_SRC_PLATFORM_LIBEVENTBASE_H

#include <sys/time.h>

struct event;
struct event_base;

namespace Tarvo::Impl {

/// Dispatches the thread's base and then throws what a notification left for the loop's caller.
int dispatchBase(event_base* base);

/// Adds an assigned event with a timeout; throws MemoryResourceException when there is no room for
/// it, since an event that never comes would go unnoticed.
void addTimeout(event& ev, const timeval& timeout);

}  // namespace Tarvo::Impl

#endif
