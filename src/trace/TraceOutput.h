#ifndef TARVO_SRC_TRACE_TRACEOUTPUT_H
#define TARVO_SRC_TRACE_TRACEOUTPUT_H

#include <string_view>

#include "Tarvo/TraceSink.h"

namespace Tarvo::Impl {

/// Writes to the trace file, when one is open, or else to standard error; a failure is not
/// reported. REQUIRES: the global lock.
void writeTrace(std::string_view text);

/// Whether the process has a sink; no lock needed.
bool hasTraceSink();

/// Gives the record to the sink. False when the sink has not taken it: a line is to be written.
bool giveToTraceSink(const Platform::TraceRecord& record);

}  // namespace Tarvo::Impl

#endif
