/// Capturing a call stack beside the unwinder's bare walk over the same frames.
///
/// A program of its own, in which nothing is thrown: whoever links the unwinding library itself
/// gets C++ throws through it too, some twenty times slower, and rows about exceptions would
/// measure that.

#define UNW_LOCAL_ONLY
#include <libunwind.h>

#include "Leaves.h"

namespace bench {

void UnwBacktrace(State& state) {
  atDepth(state.range(0), [&] {
    for (auto _ : state) {
      void* frames[Tarvo::Backtrace::maxFrames];
      opaque(unw_backtrace(frames, Tarvo::Backtrace::maxFrames));
      opaque(frames);
    }
  });
}
BENCHMARK(BacktraceCapture)->Arg(10)->Arg(50)->Arg(100);
BENCHMARK(UnwBacktrace)->Arg(10)->Arg(50)->Arg(100);

}  // namespace bench
