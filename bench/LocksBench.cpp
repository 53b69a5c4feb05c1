/// The locks that know their owner, beside the mutexes that do not: locked and unlocked again by
/// one thread that no other disturbs. And a counter without a plug-in, beside the processor's
/// addition.

#include <benchmark/benchmark.h>
#include <pthread.h>

#include <atomic>
#include <mutex>

#include "Tarvo/Counters.h"
#include "Tarvo/Locking.h"

namespace {

class RecursivePthreadMutex {
 public:
  RecursivePthreadMutex() = default;
  RecursivePthreadMutex(const RecursivePthreadMutex&) = delete;
  RecursivePthreadMutex& operator=(const RecursivePthreadMutex&) = delete;
  ~RecursivePthreadMutex() { pthread_mutex_destroy(&mutex_); }

  void lock() { pthread_mutex_lock(&mutex_); }
  void unlock() { pthread_mutex_unlock(&mutex_); }

 private:
  pthread_mutex_t mutex_ = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
};

template <typename Mutex>
void LockAndUnlock(benchmark::State& state) {
  Mutex mutex;
  for (auto _ : state) {
    mutex.lock();
    benchmark::ClobberMemory();
    mutex.unlock();
  }
}
BENCHMARK(LockAndUnlock<Tarvo::Locking::Lock>);
BENCHMARK(LockAndUnlock<std::mutex>);
BENCHMARK(LockAndUnlock<Tarvo::Locking::RecursiveLock>);
BENCHMARK(LockAndUnlock<RecursivePthreadMutex>);

void CounterInc(benchmark::State& state) {
  Tarvo::Counter counter("bench_total");
  for (auto _ : state) {
    counter.valueInc();
    benchmark::ClobberMemory();
  }
}
BENCHMARK(CounterInc);

void AtomicInc(benchmark::State& state) {
  std::atomic<unsigned long> counter{0};
  for (auto _ : state) {
    counter.fetch_add(1, std::memory_order_relaxed);
    benchmark::ClobberMemory();
  }
  benchmark::DoNotOptimize(counter.load());
}
BENCHMARK(AtomicInc);

}  // namespace
