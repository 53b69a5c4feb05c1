#ifndef TARVO_SRC_PLATFORM_LIBEVENTTIMEOUTS_H
#define TARVO_SRC_PLATFORM_LIBEVENTTIMEOUTS_H

#include <sys/time.h>

struct event;
struct event_base;

namespace Tarvo::Impl {

/// The absolute expiry that a base keeps in a pending event, on the base's own clock.
timeval storedExpiry(const event& ev);

/// The present time on the base's clock. libevent has no call for it, so a probe event without
/// delay is added, and its expiry read.
timeval baseNow(event_base* base);

}  // namespace Tarvo::Impl

#endif
