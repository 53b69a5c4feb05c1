#ifndef TARVO_SRC_PLATFORM_TRACEHANDLES_H
#define TARVO_SRC_PLATFORM_TRACEHANDLES_H

#include "Tarvo/Trace.h"

namespace Tarvo::Impl {

/// The platform's own channels, made when the library is loaded.
extern Platform::DebugHandler* libeventTrace;    // "TarvoLibevent"
extern Platform::DebugHandler* pluginTrace;      // "TarvoPlugin"
extern Platform::DebugHandler* timerWheelTrace;  // "TarvoTimerWheel"

}  // namespace Tarvo::Impl

#endif
