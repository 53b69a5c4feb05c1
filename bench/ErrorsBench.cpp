/// What an exception of the library costs beside std::runtime_error, which keeps no call stack: to
/// make it, to throw and catch it through a number of frames, and to ask what it was.

#include <benchmark/benchmark.h>

#include <chrono>
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

/// The text is kept once it is made, so each iteration needs an exception of its own; the clock
/// sees what() alone, and its own two readings.
void ExceptionWhat(benchmark::State& state) {
  using Clock = std::chrono::steady_clock;
  atDepth(state.range(0), [&] {
    for (auto _ : state) {
      const Tarvo::RuntimeException error("what went wrong");
      const auto begin = Clock::now();
      benchmark::DoNotOptimize(error.what());
      state.SetIterationTime(std::chrono::duration<double>(Clock::now() - begin).count());
    }
  });
}
BENCHMARK(ExceptionWhat)->Arg(10)->Arg(50)->Arg(100)->UseManualTime();

}  // namespace
