#ifndef TARVO_SRC_PLATFORM_LIBEVENTTRACE_H
#define TARVO_SRC_PLATFORM_LIBEVENTTRACE_H

// The files of the backend name themselves with one word in traces and assertions.
#define TARVO_FILE "LibeventFactoryCpp"

#include "Tarvo/Trace.h"

namespace Tarvo::Impl {

/// The channel "TarvoLibevent", made when the library is loaded.
extern Platform::DebugHandler* libeventTrace;

}  // namespace Tarvo::Impl

#endif
