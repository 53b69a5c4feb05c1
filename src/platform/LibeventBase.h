#ifndef TARVO_SRC_PLATFORM_LIBEVENTBASE_H
#define TARVO_SRC_PLATFORM_LIBEVENTBASE_H

struct event_base;

namespace Tarvo::Impl {

/// Dispatches the thread's base and then throws what a notification left for the loop's caller.
int dispatchBase(event_base* base);

}  // namespace Tarvo::Impl

#endif
