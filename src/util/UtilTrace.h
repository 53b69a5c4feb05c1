#ifndef TARVO_SRC_UTIL_UTILTRACE_H
#define TARVO_SRC_UTIL_UTILTRACE_H

#include "Tarvo/Trace.h"

namespace Tarvo::Impl {

/// The channel "TarvoUtil", made when the library is loaded.
extern Platform::DebugHandler* utilTrace;

}  // namespace Tarvo::Impl

#endif
