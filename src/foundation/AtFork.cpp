#include "foundation/AtFork.h"

#include <sys/single_threaded.h>

#include <atomic>

namespace Tarvo::Impl {

namespace {

/// A recursive lock, because a thread may fork inside its own change. The holder is identified by
/// the address of a thread-local variable and not by its thread id: the address is the same in a
/// forked child, so the child can release the lock that its parent took.
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
  unsigned depth_ = 0;  // nested locks beyond the first; only the holder uses it
};
thread_local char ChangeLock::self_ = 0;
constinit ChangeLock changes;

std::atomic<bool> forkingAmongThreads{false};
std::atomic<bool> amongThreads{false};  // set in the child only

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
