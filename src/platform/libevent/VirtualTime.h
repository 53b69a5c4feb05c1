#ifndef TARVO_SRC_PLATFORM_VIRTUALTIME_H
#define TARVO_SRC_PLATFORM_VIRTUALTIME_H

#include <sys/time.h>

namespace Tarvo::Impl {

/// fastForwardDelayToFirstTimer() without its check of the switch. Zero while events are active:
/// they must be served before the clock jumps.
bool delayToFirstTimer(timeval* out);

}  // namespace Tarvo::Impl

#endif
