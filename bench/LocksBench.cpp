/// The locks that know their owner, beside the mutexes that do not: locked and unlocked again by
/// one thread that no other disturbs.

#include <benchmark/benchmark.h>
#include <pthread.h>

#include <mutex>

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

}  // namespace
