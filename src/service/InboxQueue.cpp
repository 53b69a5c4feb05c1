#include "Tarvo/detail/InboxQueue.h"

#include "Tarvo/Task.h"
#include "platform/libevent/LoopWakes.h"

namespace Tarvo::Impl {

/// Schedules the inbox as long as it is there.
class InboxQueueBase::Waker final : public LoopWake {
 public:
  Waker(TaskImpl& inbox, InboxQueueBase& queue) : inbox_(&inbox), queue_(queue) {}
  void forgetInbox() { inbox_ = nullptr; }

 private:
  void woken() override {
    if (inbox_ == nullptr) return;
    queue_.heard();
    inbox_->scheduleTask();
  }

  TaskImpl* inbox_;
  InboxQueueBase& queue_;  // until the inbox is forgotten
};

class InboxQueueBase::Keeping final : public LoopKeeping {
 public:
  explicit Keeping(InboxQueueBase& queue) : queue_(queue) {}

 private:
  void loopEnds() noexcept override { queue_.close(); }

  InboxQueueBase& queue_;
};

InboxQueueBase::InboxQueueBase(TaskImpl& inbox, std::size_t capacity)
    : capacity_(capacity),
      thread_(std::this_thread::get_id()),
      name_(inbox.taskName()),
      waker_(std::make_shared<Waker>(inbox, *this)),
      keeping_(std::make_unique<Keeping>(*this)),
      lock_(waker_->postLock()) {}

InboxQueueBase::~InboxQueueBase() = default;

bool InboxQueueBase::open() const noexcept {
  return open_.load(std::memory_order_relaxed) && !waker_->ofParentProcess();
}

bool InboxQueueBase::accepts(std::size_t posted, bool limited) const noexcept {
  return open_.load(std::memory_order_relaxed) &&
         (!limited || capacity_ == 0 || posted + left() < capacity_);
}

bool InboxQueueBase::note() const noexcept { return waker_->note(); }
void InboxQueueBase::wakeUp() const noexcept { waker_->wakeUp(); }

void InboxQueueBase::end() noexcept {
  if (!open()) return;
  bool asleep = false;
  {
    const std::lock_guard guard(lock_);
    open_.store(false, std::memory_order_relaxed);
    asleep = noteUnlessHeard();
  }
  if (asleep) wakeUp();
}

bool InboxQueueBase::tookAll(std::size_t count) noexcept {
  leftIs(count);
  hears_.store(count != 0, std::memory_order_relaxed);
  allServed_ = count == 0 && !open_.load(std::memory_order_relaxed);
  return count != 0;
}

std::size_t InboxQueueBase::rests() noexcept {
  const std::lock_guard guard(lock_);
  const std::size_t waiting = posted() + left();
  hears_.store(false, std::memory_order_relaxed);
  allServed_ = waiting == 0 && !open_.load(std::memory_order_relaxed);
  return waiting;
}

void InboxQueueBase::letLoopGo() noexcept { keeping_.reset(); }

void InboxQueueBase::close() noexcept {
  if (closed_) return;
  closed_ = true;
  waker_->forgetInbox();
  {
    const std::lock_guard guard(lock_);
    open_.store(false, std::memory_order_relaxed);
  }
  dropItems();
}

}  // namespace Tarvo::Impl
