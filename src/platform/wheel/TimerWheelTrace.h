#ifndef TARVO_SRC_PLATFORM_TIMERWHEELTRACE_H
#define TARVO_SRC_PLATFORM_TIMERWHEELTRACE_H

// The files of the timer wheel name themselves with one word in traces and assertions.
#define TARVO_FILE "TimerWheelCpp"

#include "platform/TraceHandles.h"

#endif
