/// What an exception of the library costs beside std::runtime_error, which keeps no call stack: to
/// make it, to throw and catch it through a number of frames, and to ask what it was.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <ctime>
#include <stdexcept>

#include "AtDepth.h"
#include "Tarvo/Exception.h"

namespace {

template <typename Error>
void ConstructException(benchmark::State& state) {
  atDepth(state.range(0), [&] {
    for (auto _ : state) {
      const Error error("what went wrong");
      benchmark::DoNotOptimize(&error);
    }
  });
}
BENCHMARK(ConstructException<Tarvo::RuntimeException>)->Arg(10)->Arg(50)->Arg(100);
BENCHMARK(ConstructException<std::runtime_error>)->Arg(10)->Arg(50)->Arg(100);

template <typename Error>
void ThrowAndCatch(benchmark::State& state) {
  for (auto _ : state) {
    try {
      atDepth(state.range(0), [&] {
        if (state.range(0) > 0) throw Error("what went wrong");
      });
    } catch (const std::exception& e) {
      benchmark::DoNotOptimize(&e);
    }
  }
}
BENCHMARK(ThrowAndCatch<Tarvo::RuntimeException>)->Arg(10)->Arg(50)->Arg(100);
BENCHMARK(ThrowAndCatch<std::runtime_error>)->Arg(10)->Arg(50)->Arg(100);

/// Time of the processor that this thread used. The clock counts nanoseconds, but each reading is a
/// call of the system that takes some hundreds of them.
double threadSeconds() {
  timespec used{};
  if (clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used) != 0) std::abort();
  return static_cast<double>(used.tv_sec) + 1e-9 * static_cast<double>(used.tv_nsec);
}

/// The text is kept once it is made, so each iteration needs an exception of its own. The time is
/// that of what(), which is many microseconds, and of about one reading of the clock.
void ExceptionWhat(benchmark::State& state) {
  atDepth(state.range(0), [&] {
    for (auto _ : state) {
      const Tarvo::RuntimeException error("what went wrong");
      const double begin = threadSeconds();
      benchmark::DoNotOptimize(error.what());
      state.SetIterationTime(threadSeconds() - begin);
    }
  });
}
BENCHMARK(ExceptionWhat)->Arg(10)->Arg(50)->Arg(100)->UseManualTime();

}  // namespace
