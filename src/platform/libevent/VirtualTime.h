#ifndef TARVO_SRC_PLATFORM_VIRTUALTIME_H
#define TARVO_SRC_PLATFORM_VIRTUALTIME_H

#include <sys/time.h>

namespace Tarvo::Impl {

/// fastForwardDelayToFirstTimer() without its check of the switch. Events that a pass has left to
/// be served come before any jump: the delay is then zero.
bool delayToFirstTimer(timeval* out);

}  // namespace Tarvo::Impl

#endif
