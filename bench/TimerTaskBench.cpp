/// Restarting one of many pending timer tasks, beside the timers of asio and libevent. Only asio's
/// loop has to run in between.

#include <benchmark/benchmark.h>

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "Draw.h"
#include "Tarvo/TaskScheduler.h"
#include "TimerBackends.h"

namespace {

/// Timer tasks with names of their own.
class TimerTasks {
 public:
  explicit TimerTasks(std::size_t n) {
    tasks_.reserve(n);
    while (tasks_.size() < n) {
      tasks_.push_back(std::make_shared<Pending>(Tarvo::schedulerRootTarvo(),
                                                 Tarvo::TaskPriority::normal,
                                                 fmt::format("pending{}", tasks_.size())));
      tasks_.back()->includeInCompletedTaskIs(false);
    }
  }
  TimerTasks(const TimerTasks&) = delete;
  TimerTasks& operator=(const TimerTasks&) = delete;
  ~TimerTasks() {
    tasks_.clear();
    Tarvo::leFree();
  }
  void start(std::size_t i, double delay) { tasks_[i]->scheduleTaskDelay(delay); }

 private:
  struct Pending : Tarvo::TimerTask {
    using TimerTask::TimerTask;
    void taskExecute() override {}
  };
  std::vector<std::shared_ptr<Pending>> tasks_;
};

/// A restart leaves a cancelled wait behind, which only the loop completes and frees; so the loop
/// has its turn after every so many of them.
class AsioTimers {
 public:
  explicit AsioTimers(std::size_t n) {
    while (timers_.size() < n) timers_.emplace_back(context_);
  }
  void start(std::size_t i, double delay) {
    timers_[i].expires_after(std::chrono::nanoseconds(static_cast<std::int64_t>(delay * 1e9)));
    timers_[i].async_wait([](const asio::error_code&) {});
    if (++starts_ % startsPerTurn == 0) context_.poll();
  }

 private:
  static constexpr unsigned startsPerTurn = 64;
  asio::io_context context_{1};
  std::deque<asio::steady_timer> timers_;
  unsigned starts_ = 0;
};

template <typename Backend>
void Restart(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  Backend backend(n);
  bench::Draw draw;
  for (std::size_t i = 0; i < n; ++i) backend.start(i, draw.delay(1, 100));
  for (auto _ : state) {
    const std::size_t any = draw.below(n);
    backend.start(any, draw.delay(1, 100));
  }
}

void sizes(benchmark::internal::Benchmark* b) { b->RangeMultiplier(10)->Range(1000, 1000000); }

using LibeventHeap = bench::Libevent<false>;

BENCHMARK(Restart<TimerTasks>)->Apply(sizes);
BENCHMARK(Restart<AsioTimers>)->Apply(sizes);
BENCHMARK(Restart<LibeventHeap>)->Apply(sizes);

}  // namespace
