#include "foundation/AtFork.h"

#include <sys/single_threaded.h>

#include <atomic>

namespace Tarvo::Impl {

namespace {

/// Recursive, for the thread that forks inside its own change. A thread is known by an address,
/// which stays the same in a forked child, so that the child can release what its parent took.
class ChangeLock {
 public:
  void lock() {
    if (holder_.load(std::memory_order_relaxed) == &self_) {
      ++depth_;
      return;
    }
    for (const char* other = nullptr; !holder_.compare_exchange_weak(
             other, &self_, std::memory_order_acquire, std::memory_order_relaxed);
         other = nullptr) {
      if (other != nullptr) holder_.wait(other, std::memory_order_relaxed);
    }
  }
  void unlock() {
    if (depth_ > 0) {
      --depth_;
      return;
    }
    holder_.store(nullptr, std::memory_order_release);
    holder_.notify_one();
  }

 private:
  static thread_local char self_;
  std::atomic<const char*> holder_{nullptr};
  unsigned depth_ = 0;  // beyond the first; only the holder uses it
};
thread_local char ChangeLock::self_ = 0;
constinit ChangeLock changes;

std::atomic<bool> forkingAmongThreads{false};
std::atomic<bool> amongThreads{false};  // written by the only thread of a child

}  // namespace

WholeChange::WholeChange() { changes.lock(); }
WholeChange::~WholeChange() { changes.unlock(); }

bool forkedAmongThreads() { return amongThreads.load(std::memory_order_relaxed); }

void holdChanges() {
  if (__libc_single_threaded == 0) forkingAmongThreads.store(true, std::memory_order_relaxed);
  changes.lock();
}

void releaseChanges() { changes.unlock(); }

void releaseChangesInChild() {
  if (forkingAmongThreads.load(std::memory_order_relaxed)) {
    amongThreads.store(true, std::memory_order_relaxed);
  }
  changes.unlock();
}

}  // namespace Tarvo::Impl
