/// Timers with 1 thousand to 1 million of them pending.

#include <benchmark/benchmark.h>

#include <random>

#include "TimerBackends.h"

namespace {

constexpr double longDelay = 1000;

/// Random numbers made beforehand, so that making them is not measured.
template <typename Distribution>
auto drawn(Distribution distribution) {
  std::mt19937_64 random(1);
  std::vector<typename Distribution::result_type> numbers(1 << 16);
  for (auto& number : numbers) number = distribution(random);
  return numbers;
}
const std::vector<double>& delays() {
  static const auto numbers =
      drawn(std::uniform_real_distribution<double>(longDelay, 2 * longDelay));
  return numbers;
}
std::vector<std::size_t> indices(std::size_t n) {
  return drawn(std::uniform_int_distribution<std::size_t>(0, n - 1));
}

template <typename Backend>
std::unique_ptr<Backend> filled(benchmark::State& state, std::size_t pending, bool constantDelay) {
  auto backend = std::make_unique<Backend>(pending);
  for (std::size_t i = 0; i < pending; ++i) {
    backend->start(i, constantDelay ? longDelay : delays()[i % delays().size()]);
  }
  state.counters["bytes"] = static_cast<double>(Backend::bytes);
  return backend;
}

/// One stop and one start of any of the pending timers.
template <typename Backend>
void StartStop(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  const auto backend = filled<Backend>(state, n, false);
  const auto order = indices(n);
  std::size_t k = 0;
  for (auto _ : state) {
    const std::size_t at = k++ % order.size();
    backend->stop(order[at]);
    backend->start(order[at], delays()[at]);
  }
}

template <typename Backend, bool ConstantDelay>
void Rearm(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  const auto backend = filled<Backend>(state, n, ConstantDelay);
  const auto order = indices(n);
  std::size_t k = 0;
  for (auto _ : state) {
    const std::size_t at = k++ % order.size();
    backend->start(order[at], ConstantDelay ? longDelay : delays()[at]);
  }
}

/// Time per timer of one loop in which all of them are due.
template <typename Backend>
void Expire(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    auto backend = std::make_unique<Backend>(n);
    for (std::size_t i = 0; i < n; ++i)
      backend->start(i, 0.02 * delays()[i % delays().size()] / longDelay);
    const double due = Tarvo::time() + 0.05;
    while (Tarvo::time() < due) {
    }
    state.ResumeTiming();
    backend->run(n);
    state.PauseTiming();
    backend.reset();
    state.ResumeTiming();
  }
  state.counters["each"] =
      benchmark::Counter(static_cast<double>(n), benchmark::Counter::kIsIterationInvariantRate |
                                                     benchmark::Counter::kInvert);
}

void sizes(benchmark::internal::Benchmark* b) { b->RangeMultiplier(10)->Range(1000, 1000000); }

#define TIMER_ROWS(Backend)                         \
  BENCHMARK(StartStop<Backend>)->Apply(sizes);      \
  BENCHMARK((Rearm<Backend, false>))->Apply(sizes); \
  BENCHMARK((Rearm<Backend, true>))->Apply(sizes);  \
  BENCHMARK(Expire<Backend>)->Apply(sizes)->Iterations(3);

using bench::Asio;
using bench::Libev;
using bench::Libuv;
using bench::TarvoWheel;
using LibeventHeap = bench::Libevent<false>;
using LibeventCommon = bench::Libevent<true>;

TIMER_ROWS(TarvoWheel)
TIMER_ROWS(LibeventHeap)
TIMER_ROWS(Libev)
TIMER_ROWS(Libuv)
TIMER_ROWS(Asio)
BENCHMARK((Rearm<LibeventCommon, true>))->Apply(sizes);

}  // namespace
