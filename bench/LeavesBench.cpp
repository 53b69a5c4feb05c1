/// What needs no loop, beside what the standard library and the system offer: locks that know their
/// owner beside mutexes that do not, a counter beside the processor's addition, interned names
/// beside a set of strings and a shared string, hashes, the clock, and exceptions that carry a call
/// stack beside one that does not.

#include "Leaves.h"

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <unordered_set>

#include "Tarvo/Counters.h"
#include "Tarvo/Exception.h"
#include "Tarvo/Locking.h"

namespace bench {

/// In a program that never started a thread the standard library counts and locks without atomics.
[[maybe_unused]] const bool hasStartedThread = [] {
  std::thread([] {}).join();
  return true;
}();

struct RecursivePthreadMutex {
  void lock() { pthread_mutex_lock(&mutex); }
  void unlock() { pthread_mutex_unlock(&mutex); }
  pthread_mutex_t mutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
};

BENCHMARK(LockAndUnlock<Tarvo::Locking::Lock>);
BENCHMARK(LockAndUnlock<std::mutex>);
BENCHMARK(LockAndUnlock<Tarvo::Locking::RecursiveLock>);
BENCHMARK(LockAndUnlock<RecursivePthreadMutex>);

template <typename Add>
void addEachTime(State& state, Add add) {
  for (auto _ : state) {
    add();
    benchmark::ClobberMemory();
  }
}
void CounterInc(State& state) {
  Tarvo::Counter counter("bench_total");
  addEachTime(state, [&] { counter.valueInc(); });
}
void AtomicInc(State& state) {
  std::atomic<unsigned long> counter{0};
  addEachTime(state, [&] { counter.fetch_add(1, std::memory_order_relaxed); });
}
BENCHMARK(CounterInc);
BENCHMARK(AtomicInc);

void InternStdUnorderedSet(State& state) {
  const auto texts = namesOf(many(state));
  const std::unordered_set<std::string> set(texts.begin(), texts.end());
  lookUp(state, texts, [&](const std::string& text) { opaque(&*set.find(text)); });
}
void sizes(benchmark::internal::Benchmark* b) { b->RangeMultiplier(10)->Range(1, 1'000'000); }
BENCHMARK(InternString)->Apply(sizes);
BENCHMARK(InternStdUnorderedSet)->Arg(1)->Arg(1000)->Arg(1'000'000);

void CopySharedString(State& state) {
  copy(state, std::make_shared<const std::string>("connection 17"));
}
BENCHMARK(CopyConstStringRef);
BENCHMARK(CopySharedString);

void StdHash(State& state) { hash(state, std::hash<std::string_view>()); }
BENCHMARK(UtilHash)->Arg(8)->Arg(64)->Arg(1024);
BENCHMARK(StdHash)->Arg(8)->Arg(64)->Arg(1024);

void SteadyClock(State& state) {
  for (auto _ : state) opaque(std::chrono::steady_clock::now());
}
BENCHMARK(LibraryClock);
BENCHMARK(SteadyClock);
BENCHMARK(HistoryInsert);

void depths(benchmark::internal::Benchmark* b) { b->Arg(10)->Arg(50)->Arg(100); }

BENCHMARK(ThrowAndCatch<Tarvo::RuntimeException>)->Apply(depths);
BENCHMARK(ThrowAndCatch<std::runtime_error>)->Apply(depths);

template <typename Error>
void ConstructException(State& state) {
  atDepth(state.range(0), [&] {
    for (auto _ : state) {
      const Error error("what went wrong");
      opaque(error);
    }
  });
}
BENCHMARK(ConstructException<Tarvo::RuntimeException>)->Apply(depths);
BENCHMARK(ConstructException<std::runtime_error>)->Apply(depths);

/// Time of the processor that this thread used. The clock counts nanoseconds, but each reading is a
/// call of the system that takes some hundreds of them.
double threadSeconds() {
  timespec used{};
  if (clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used) != 0) std::abort();
  return static_cast<double>(used.tv_sec) + 1e-9 * static_cast<double>(used.tv_nsec);
}

/// The text is kept once it is made, so each iteration needs an exception of its own. The time is
/// that of what(), which is many microseconds, and of about one reading of the clock.
void ExceptionWhat(State& state) {
  atDepth(state.range(0), [&] {
    for (auto _ : state) {
      const Tarvo::RuntimeException error("what went wrong");
      const double begin = threadSeconds();
      opaque(error.what());
      state.SetIterationTime(threadSeconds() - begin);
    }
  });
}
BENCHMARK(ExceptionWhat)->Apply(depths)->UseManualTime();

}  // namespace bench
