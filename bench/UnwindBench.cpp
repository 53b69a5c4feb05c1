/// Capturing a call stack beside the unwinder's bare walk over the same frames.
///
/// A program of its own, in which nothing is thrown: whoever links the unwinding library itself
/// gets C++ throws through it too, some twenty times slower, and rows about exceptions would
/// measure that.

#define UNW_LOCAL_ONLY
#include <benchmark/benchmark.h>
#include <libunwind.h>

#include "AtDepth.h"
#include "Tarvo/Backtrace.h"

namespace {

void BacktraceCapture(benchmark::State& state) {
  atDepth(state.range(0), [&] {
    for (auto _ : state) {
      Tarvo::Backtrace here(true);
      benchmark::DoNotOptimize(here);
    }
  });
}
BENCHMARK(BacktraceCapture)->Arg(10)->Arg(50)->Arg(100);

void UnwBacktrace(benchmark::State& state) {
  atDepth(state.range(0), [&] {
    for (auto _ : state) {
      void* frames[Tarvo::Backtrace::maxFrames];
      benchmark::DoNotOptimize(unw_backtrace(frames, Tarvo::Backtrace::maxFrames));
      benchmark::DoNotOptimize(frames);
    }
  });
}
BENCHMARK(UnwBacktrace)->Arg(10)->Arg(50)->Arg(100);

}  // namespace
