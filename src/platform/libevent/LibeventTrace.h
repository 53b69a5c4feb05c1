#ifndef TARVO_SRC_PLATFORM_LIBEVENTTRACE_H
#define TARVO_SRC_PLATFORM_LIBEVENTTRACE_H

// The files of the backend name themselves with one word in traces and assertions.
#define TARVO_FILE "LibeventFactoryCpp"

#include "platform/TraceHandles.h"

#endif
