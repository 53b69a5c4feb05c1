#ifndef TARVO_DETAIL_INBOXQUEUE_H
#define TARVO_DETAIL_INBOXQUEUE_H

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "Tarvo/Export.h"
#include "Tarvo/String.h"

namespace Tarvo {

class TaskImpl;

namespace Impl {

/// The items on their way to an inbox: all but the items themselves. Any thread posts; the inbox
/// takes what was posted, all at once. A lock stands between the two, one for all inboxes of a
/// thread, which a fork of that thread takes too: its child finds it free.
class TARVO_EXPORT InboxQueueBase {
 public:
  /// For the inbox, on its thread. A capacity of 0 is no limit.
  InboxQueueBase(TaskImpl& inbox, std::size_t capacity);
  InboxQueueBase(const InboxQueueBase&) = delete;
  InboxQueueBase& operator=(const InboxQueueBase&) = delete;
  virtual ~InboxQueueBase();

  // Any thread.

  /// Nothing is accepted any more; what was is still served.
  void end() noexcept;
  bool onOwnThread() const noexcept { return std::this_thread::get_id() == thread_; }
  const String& name() const noexcept { return name_; }

  // The inbox.

  /// Whether there is an item to take. Meanwhile posts do not schedule the inbox; when there is
  /// none, they do from now on.
  bool any() noexcept { return left() != 0 || takePosted(); }
  /// From now on posts schedule it. Returns how many wait, for which it has to schedule itself.
  std::size_t rests() noexcept;
  /// Whether the end was posted, when any() or rests() found nothing.
  bool allServed() const noexcept { return allServed_; }
  /// What was noted has scheduled it. Posts do so again, as it may be unscheduled before its turn.
  void heard() noexcept { hears_.store(false, std::memory_order_relaxed); }
  /// The loop need not wait for posts any more.
  void letLoopGo() noexcept;
  /// Ends, forgets the inbox and destroys what is left, which may hold the inbox.
  void close() noexcept;

 protected:
  /// False where the lock may not be touched: it may be held for ever in a child of a fork.
  bool open() const noexcept;
  std::mutex& lock() const noexcept { return lock_; }
  // Under the lock.
  bool accepts(std::size_t posted, bool limited) const noexcept;
  /// Lets the inbox hear of what was posted. True when its thread has to be woken up, which is done
  /// without the lock: who is woken up wants it.
  bool noteUnlessHeard() noexcept {
    if (hears_.load(std::memory_order_relaxed)) return false;
    hears_.store(true, std::memory_order_relaxed);
    return note();
  }
  /// So many were taken, and nothing else is there.
  bool tookAll(std::size_t count) noexcept;

  void wakeUp() const noexcept;
  /// How many were taken and not served; the inbox alone changes it.
  std::size_t left() const noexcept { return left_.load(std::memory_order_relaxed); }
  void leftIs(std::size_t count) noexcept { left_.store(count, std::memory_order_relaxed); }

 private:
  class Waker;
  class Keeping;

  bool note() const noexcept;
  virtual std::size_t posted() const noexcept = 0;
  virtual bool takePosted() noexcept = 0;
  virtual void dropItems() noexcept = 0;

  const std::size_t capacity_;
  const std::thread::id thread_;
  const String name_;
  const std::shared_ptr<Waker> waker_;
  std::unique_ptr<Keeping> keeping_;
  std::mutex& lock_;
  std::atomic<bool> open_{true};  // changed under the lock
  // Of what is posted, soon. Set under the lock; the inbox may clear it without.
  std::atomic<bool> hears_{false};
  bool allServed_ = false;
  bool closed_ = false;
  std::atomic<std::size_t> left_{0};
};

template <typename T>
class InboxQueue final : public InboxQueueBase {
 public:
  using InboxQueueBase::InboxQueueBase;

  /// When it is false or throws std::bad_alloc, the item is as it was.
  bool post(T& item, bool limited) {
    if (!open()) return false;
    bool asleep = false;
    {
      const std::lock_guard guard(lock());
      if (!accepts(posted_.size(), limited)) return false;
      posted_.push_back(std::move(item));
      asleep = noteUnlessHeard();
    }
    if (asleep) wakeUp();
    return true;
  }
  /// The next item. REQUIRES: any().
  T take() noexcept {
    leftIs(left() - 1);
    return std::move(taken_[taken_.size() - 1 - left()]);
  }

 private:
  std::size_t posted() const noexcept override { return posted_.size(); }
  bool takePosted() noexcept override {
    taken_.clear();
    const std::lock_guard guard(lock());
    taken_.swap(posted_);
    return tookAll(taken_.size());
  }
  void dropItems() noexcept override {
    std::vector<T> posted;
    const std::vector<T> taken = std::move(taken_);
    leftIs(0);
    const std::lock_guard guard(lock());
    posted.swap(posted_);
  }

  std::vector<T> posted_;  // under the lock
  std::vector<T> taken_;   // the inbox's own
};

}  // namespace Impl

}  // namespace Tarvo

#endif
