#ifndef TARVO_SRC_TRACE_BACKTRACE_H
#define TARVO_SRC_TRACE_BACKTRACE_H

namespace Tarvo::Impl {

/// Makes the C library load the compiler's unwinder now. Otherwise the first backtrace() loads it
/// under the dynamic loader's lock, which may be locked for ever in a forked child.
void loadUnwinder();

}  // namespace Tarvo::Impl

#endif
