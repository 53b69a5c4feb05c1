#ifndef TARVO_SRC_PLATFORM_LIBEVENTTIMEOUTS_H
#define TARVO_SRC_PLATFORM_LIBEVENTTIMEOUTS_H

#include <sys/time.h>

struct event;

namespace Tarvo::Impl {

/// The absolute expiry that a base keeps in a pending event, on the base's own clock.
timeval storedExpiry(const event& ev);

}  // namespace Tarvo::Impl

#endif
