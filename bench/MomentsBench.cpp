/// Reading the library's clock beside the standard one, and recording a moment in the history of a
/// root. The history is the public object itself, full, so that each event replaces the oldest, and
/// the moment is given: that is what a task's run adds to its two readings of the clock, twice.

#include <benchmark/benchmark.h>

#include <chrono>
#include <memory>

#include "Tarvo/LibeventFactory.h"
#include "Tarvo/Platform.h"
#include "Tarvo/TaskScheduler.h"
#include "Tarvo/TaskSchedulerHistory.h"

namespace {

void LibraryClock(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(Tarvo::time());
}
BENCHMARK(LibraryClock);

void SteadyClock(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(std::chrono::steady_clock::now());
}
BENCHMARK(SteadyClock);

struct Idle : Tarvo::Task {
  using Task::Task;
  void taskExecute() override {}
};

void HistoryInsert(benchmark::State& state) {
  const auto root = Tarvo::schedulerRootTarvo();
  {
    const Idle tasks[] = {{root, Tarvo::TaskPriority::normal, "first"},
                          {root, Tarvo::TaskPriority::normal, "second"}};
    Tarvo::TaskSchedulerHistory history(1000);
    const auto now = Tarvo::TaskClock::now();
    unsigned turn = 0;
    for (auto _ : state) {
      history.insert(now, Tarvo::TaskSchedulerEventType::runStart, &tasks[turn ^= 1U]);
    }
    benchmark::DoNotOptimize(history.events().front());
  }
}
BENCHMARK(HistoryInsert);

}  // namespace
