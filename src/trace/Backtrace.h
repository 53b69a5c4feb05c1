#ifndef TARVO_SRC_TRACE_BACKTRACE_H
#define TARVO_SRC_TRACE_BACKTRACE_H

namespace Tarvo::Impl {

/// Has the C library load the compiler's unwinder, which it otherwise does under a lock when a
/// backtrace first needs it.
void loadUnwinder();

}  // namespace Tarvo::Impl

#endif
