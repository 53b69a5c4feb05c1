#ifndef TARVO_LOCKING_H
#define TARVO_LOCKING_H

/// Mutexes that know their owner: releasing one that the caller does not hold is an assertion
/// failure, not undefined behaviour. All three meet the standard's Lockable requirements, so that
/// std::lock_guard and std::unique_lock work on them.

#include <pthread.h>

#include <atomic>

#include "Tarvo/Export.h"

namespace Tarvo::Locking {

/// A normal mutex. The holder must not lock it again.
class TARVO_EXPORT Lock {
 public:
  Lock() = default;
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;
  ~Lock();

  /// Throws std::system_error when the mutex call fails.
  void lock();
  bool try_lock();
  /// Fails an assertion when the caller is not the owner.
  void unlock();
  /// Whether the caller holds the lock; no system call.
  bool owns_lock() const;

 private:
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
  // Written by the holder only. A stale read can only tell a thread that it is not the owner.
  std::atomic<pthread_t> owner_{0};
};

/// A mutex that its holder may lock again; it is free after as many releases.
class TARVO_EXPORT RecursiveLock {
 public:
  RecursiveLock() = default;
  RecursiveLock(const RecursiveLock&) = delete;
  RecursiveLock& operator=(const RecursiveLock&) = delete;
  ~RecursiveLock();

  void lock();
  bool try_lock();
  void unlock();
  bool owns_lock() const;

  /// For a forked child, in which the thread that held the lock may not exist: the lock is made
  /// anew. It stays held as often as the calling thread, the child's only one, held it.
  void forkReinit();

 private:
  unsigned lockCount() const;

  pthread_mutex_t mutex_ = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
  std::atomic<pthread_t> owner_{0};
};

/// Holds a Lock for its scope, unless releaseIs(false) hands the held lock on to later code.
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
