#ifndef TARVO_SRC_TRACE_FRAMETEXT_H
#define TARVO_SRC_TRACE_FRAMETEXT_H

#include "Tarvo/String.h"

namespace Tarvo::Impl {

/// How many modules the dynamic loader has unloaded so far.
unsigned long long moduleUnloads();

/// Appends a line per return address as the dynamic loader knows it,
/// "object(symbol+0xoffset)[address]". The loader searches a symbol table for microseconds per
/// address, so the lines of some hundred addresses are kept until a module is unloaded. May be
/// called by any thread; it waits for none.
void appendFrames(String& text, void* const* addresses, unsigned count);

}  // namespace Tarvo::Impl

#endif
