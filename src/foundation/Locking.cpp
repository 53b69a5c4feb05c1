#include "Tarvo/Locking.h"

#include <system_error>

#include "Tarvo/Assert.h"

namespace Tarvo::Locking {

namespace {

void lockMutex(pthread_mutex_t& mutex) {
  const int error = pthread_mutex_lock(&mutex);
  if (error != 0) throw std::system_error(error, std::generic_category());
}

}  // namespace

Lock::~Lock() { pthread_mutex_destroy(&mutex_); }

void Lock::lock() {
  lockMutex(mutex_);
  owner_.store(pthread_self(), std::memory_order_relaxed);
}

bool Lock::try_lock() {
  if (pthread_mutex_trylock(&mutex_) != 0) return false;
  owner_.store(pthread_self(), std::memory_order_relaxed);
  return true;
}

void Lock::unlock() {
  if (!owns_lock()) {
    TARVO_FAIL("attempting to release a lock that is not currently held, owner:{} me:{}",
               owner_.load(std::memory_order_relaxed), pthread_self());
  }
  owner_.store(0, std::memory_order_relaxed);
  pthread_mutex_unlock(&mutex_);
}

bool Lock::owns_lock() const { return owner_.load(std::memory_order_relaxed) == pthread_self(); }

RecursiveLock::~RecursiveLock() { pthread_mutex_destroy(&mutex_); }

void RecursiveLock::lock() {
  lockMutex(mutex_);
  owner_.store(pthread_self(), std::memory_order_relaxed);
}

bool RecursiveLock::try_lock() {
  if (pthread_mutex_trylock(&mutex_) != 0) return false;
  owner_.store(pthread_self(), std::memory_order_relaxed);
  return true;
}

void RecursiveLock::unlock() {
  const unsigned count = lockCount();
  if (!owns_lock() || count == 0) {
    TARVO_FAIL(
        "attempting to release a lock that is not currently held, owner:{} me:{} lockCount:{}",
        owner_.load(std::memory_order_relaxed), pthread_self(), count);
  }
  if (count == 1) owner_.store(0, std::memory_order_relaxed);
  pthread_mutex_unlock(&mutex_);
}

bool RecursiveLock::owns_lock() const {
  return owner_.load(std::memory_order_relaxed) == pthread_self();
}

// The mutex counts its own recursion and there is no portable way to ask. Only the owner's answer
// is exact; to another thread, whose release fails anyway, it is for the message.
unsigned RecursiveLock::lockCount() const {
  return __atomic_load_n(&mutex_.__data.__count, __ATOMIC_RELAXED);
}

void RecursiveLock::forkReinit() {
  const unsigned held = owns_lock() ? lockCount() : 0;
  mutex_ = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;  // the old one knows its holder by another id
  owner_.store(0, std::memory_order_relaxed);
  for (unsigned i = 0; i < held; ++i) lock();
}

ConditionalGuard::ConditionalGuard(Lock& lock) : lock_(lock) { lock_.lock(); }

ConditionalGuard::~ConditionalGuard() {
  if (release_ && lock_.owns_lock()) lock_.unlock();
}

}  // namespace Tarvo::Locking
