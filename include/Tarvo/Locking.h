#ifndef TARVO_LOCKING_H
#define TARVO_LOCKING_H

/// Mutexes that know their owner: releasing one that the caller does not hold is an assertion
/// failure, not undefined behaviour. All three meet the standard's Lockable requirements, so that
/// std::lock_guard and std::unique_lock work on them.

#include <pthread.h>

#include <atomic>

#include "Tarvo/Export.h"

namespace Tarvo::Locking {

namespace Impl {

/// Throws the error of a mutex call.
[[noreturn]] TARVO_EXPORT void throwMutexError(int error);

/// pthread_self(). On x86-64 glibc it is the first word of the thread control block, so one
/// instruction reads it. The saved call is measurable in an uncontended lock.
inline pthread_t self() {
#if defined(__x86_64__) && defined(__LP64__) && defined(__GLIBC__)
  pthread_t thread;
  asm("mov %%fs:16, %0" : "=r"(thread));
  return thread;
#else
  return pthread_self();
#endif
}

// Relaxed order is enough for the owner: only the holder writes its own id there, so no thread can
// read its own id from a stale value.
inline bool isSelf(const std::atomic<pthread_t>& owner) {
  return owner.load(std::memory_order_relaxed) == self();
}
inline void setOwner(std::atomic<pthread_t>& owner, pthread_t thread) {
  owner.store(thread, std::memory_order_relaxed);
}

}  // namespace Impl

/// A normal mutex. The holder must not lock it again.
class TARVO_EXPORT Lock {
 public:
  Lock() = default;
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;
  ~Lock();

  /// Throws std::system_error when the mutex call fails.
  TARVO_EXPORT void lock() {
    if (const int error = pthread_mutex_lock(&mutex_); error != 0) [[unlikely]] {
      Impl::throwMutexError(error);
    }
    Impl::setOwner(owner_, Impl::self());
  }
  TARVO_EXPORT bool try_lock() {
    if (pthread_mutex_trylock(&mutex_) != 0) return false;
    Impl::setOwner(owner_, Impl::self());
    return true;
  }
  /// Fails an assertion when the caller is not the owner.
  TARVO_EXPORT void unlock() {
    if (!owns_lock()) [[unlikely]]
      failUnlock();
    Impl::setOwner(owner_, 0);
    pthread_mutex_unlock(&mutex_);
  }
  /// Whether the caller holds the lock; no system call.
  TARVO_EXPORT bool owns_lock() const { return Impl::isSelf(owner_); }

 private:
  [[noreturn]] void failUnlock() const;

  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
  std::atomic<pthread_t> owner_{0};
};

/// A mutex that its holder may lock again; it is free after as many releases.
class TARVO_EXPORT RecursiveLock {
 public:
  RecursiveLock() = default;
  RecursiveLock(const RecursiveLock&) = delete;
  RecursiveLock& operator=(const RecursiveLock&) = delete;
  ~RecursiveLock();

  TARVO_EXPORT void lock() {
    if (const int error = pthread_mutex_lock(&mutex_); error != 0) [[unlikely]] {
      Impl::throwMutexError(error);
    }
    Impl::setOwner(owner_, Impl::self());
  }
  TARVO_EXPORT bool try_lock() {
    if (pthread_mutex_trylock(&mutex_) != 0) return false;
    Impl::setOwner(owner_, Impl::self());
    return true;
  }
  TARVO_EXPORT void unlock() {
    const unsigned count = lockCount();
    if (!owns_lock() || count == 0) [[unlikely]]
      failUnlock();
    if (count == 1) Impl::setOwner(owner_, 0);
    pthread_mutex_unlock(&mutex_);
  }
  TARVO_EXPORT bool owns_lock() const { return Impl::isSelf(owner_); }

  /// For a forked child, where the thread that held the lock may not exist: makes the mutex anew.
  /// If the calling thread held it in the parent, it holds it as many times again.
  void forkReinit();

 private:
  /// The recursion count inside the mutex, for which there is no portable call. It is exact for the
  /// owner only; other threads use it in the message of a failed release.
  unsigned lockCount() const { return __atomic_load_n(&mutex_.__data.__count, __ATOMIC_RELAXED); }
  [[noreturn]] void failUnlock() const;

  pthread_mutex_t mutex_ = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
  std::atomic<pthread_t> owner_{0};
};

/// Holds a Lock for its scope. After releaseIs(false) the lock stays held when the scope ends.
class TARVO_EXPORT ConditionalGuard {
 public:
  explicit ConditionalGuard(Lock& lock);
  ConditionalGuard(const ConditionalGuard&) = delete;
  ConditionalGuard& operator=(const ConditionalGuard&) = delete;
  /// Releases when release is on and the caller owns the lock.
  ~ConditionalGuard();

  void releaseIs(bool release) { release_ = release; }

 private:
  Lock& lock_;
  bool release_ = true;
};

}  // namespace Tarvo::Locking

#endif
