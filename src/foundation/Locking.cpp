#include "Tarvo/Locking.h"

#include <system_error>
#include <tuple>

#include "Tarvo/Assert.h"

namespace Tarvo::Locking {

void Impl::throwMutexError(int error) { throw std::system_error(error, std::generic_category()); }

Lock::~Lock() { pthread_mutex_destroy(&mutex_); }

namespace {

// Makes the library export the inline functions, for programs compiled when they were not inline.
template <typename Mutex>
constexpr std::tuple operations{&Mutex::lock, &Mutex::try_lock, &Mutex::unlock, &Mutex::owns_lock};
[[gnu::used]] constexpr auto lockOperations = operations<Lock>;
[[gnu::used]] constexpr auto recursiveLockOperations = operations<RecursiveLock>;

}  // namespace

// The messages name unlock(), the function that the caller has called.
void Lock::failUnlock() const {
  Tarvo::Impl::assertFailed(
      TARVO_FILE, __LINE__, "Lock::unlock()",
      "attempting to release a lock that is not currently held, owner:{} me:{}",
      owner_.load(std::memory_order_relaxed), pthread_self());
}

void RecursiveLock::failUnlock() const {
  Tarvo::Impl::assertFailed(
      TARVO_FILE, __LINE__, "RecursiveLock::unlock()",
      "attempting to release a lock that is not currently held, owner:{} me:{} lockCount:{}",
      owner_.load(std::memory_order_relaxed), pthread_self(), lockCount());
}

RecursiveLock::~RecursiveLock() { pthread_mutex_destroy(&mutex_); }

void RecursiveLock::forkReinit() {
  const unsigned held = owns_lock() ? lockCount() : 0;
  // A recursive mutex stores the kernel's thread id of its holder, which differs in the child.
  mutex_ = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
  owner_.store(0, std::memory_order_relaxed);
  for (unsigned i = 0; i < held; ++i) lock();
}

ConditionalGuard::ConditionalGuard(Lock& lock) : lock_(lock) { lock_.lock(); }

ConditionalGuard::~ConditionalGuard() {
  if (release_ && lock_.owns_lock()) lock_.unlock();
}

}  // namespace Tarvo::Locking
