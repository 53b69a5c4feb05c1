#include "foundation/AtFork.h"

#include <sys/single_threaded.h>

#include <atomic>

#include "Tarvo/Locking.h"

namespace Tarvo::Impl {

namespace {

// Never destroyed: channels come and go while the process exits too. Recursive, for the thread that
// forks inside its own change.
Locking::RecursiveLock& changes() {
  static auto& lock = *new Locking::RecursiveLock;
  return lock;
}

std::atomic<bool> forkingAmongThreads{false};
std::atomic<bool> amongThreads{false};  // written by the only thread of a child

}  // namespace

WholeChange::WholeChange() { changes().lock(); }
WholeChange::~WholeChange() { changes().unlock(); }

bool forkedAmongThreads() { return amongThreads.load(std::memory_order_relaxed); }

void holdChanges() {
  if (__libc_single_threaded == 0) forkingAmongThreads.store(true, std::memory_order_relaxed);
  changes().lock();
}

void releaseChanges() { changes().unlock(); }

void releaseChangesInChild() {
  if (forkingAmongThreads.load(std::memory_order_relaxed)) {
    amongThreads.store(true, std::memory_order_relaxed);
  }
  changes().forkReinit();  // it knows its holder by the parent's thread id
  changes().unlock();
}

}  // namespace Tarvo::Impl
