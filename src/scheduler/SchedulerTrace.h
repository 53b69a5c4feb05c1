#ifndef TARVO_SRC_SCHEDULER_SCHEDULERTRACE_H
#define TARVO_SRC_SCHEDULER_SCHEDULERTRACE_H

#include "Tarvo/Trace.h"

namespace Tarvo::Impl {

/// The channel "TaskScheduler", made when the library is loaded. Levels: 0 (on at first) runs that
/// threw; 1 and 2 suspension and settings of a root; 3 registration and settings of tasks; 5
/// quantum violations; 7 the end of each run; 8 scheduling and running; 9 timers.
extern Platform::DebugHandler* taskSchedulerTrace;

}  // namespace Tarvo::Impl

#endif
