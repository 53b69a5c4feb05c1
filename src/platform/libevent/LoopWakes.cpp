#include <event2/event.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <utility>

#include "platform/libevent/LibeventTrace.h"

#include "platform/libevent/LoopWakes.h"

#include "Tarvo/LibeventFactory.h"
#include "foundation/Uncancelled.h"
#include "platform/libevent/LibeventBase.h"
#include "platform/libevent/Notification.h"

namespace Tarvo::Impl {

namespace {

/// One more than the forks that made this process.
std::atomic<unsigned> era{1};

int makeEventfd() {
  const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (fd < 0) {
    MemoryResourceException::throwException("no descriptor to wake the event loop up with");
  }
  return fd;
}

void watch(event& ev) {
  if (event_add(&ev, nullptr) != 0) {
    MemoryResourceException::throwException("cannot watch what wakes the event loop up");
  }
}

}  // namespace

LoopWake::LoopWake() : loop_(ThreadLoop::own().wakesOfBase()) {}
LoopWake::~LoopWake() = default;

bool LoopWake::ofParentProcess() const noexcept {
  return loop_->era_.load(std::memory_order_relaxed) != era.load(std::memory_order_relaxed);
}

std::mutex& LoopWake::postLock() const noexcept { return loop_->posts_; }

bool LoopWake::note() noexcept {
  if (ofParentProcess() || !WakeList<>::claim(*this, era.load(std::memory_order_relaxed))) {
    return false;
  }
  self_ = shared_from_this();
  const auto how = loop_->list_.join(*this);
  // Now it is the thread's, which may have served it already; the caller still holds it.
  if (how == WakeList<>::Joined::ownerIsGone) self_.reset();
  return how == WakeList<>::Joined::ownerSleeps;
}

void LoopWake::wakeUp() const noexcept { loop_->wakeUp(); }

LoopWakes::LoopWakes(event_base* base)
    : era_(era.load(std::memory_order_relaxed)), fd_(makeEventfd()), base_(base) {
  try {
    listen();
  } catch (...) {
    ::close(fd_);
    throw;
  }
}

LoopWakes::~LoopWakes() {
  if (fd_ >= 0) ::close(fd_);
}

void LoopWakes::wakeUp() const noexcept {
  const Uncancelled whole;  // also what wakes must not unwind
  const int before = errno;
  const std::uint64_t one = 1;
  // It fails in a forked child that has not renewed it yet, and looks then.
  [[maybe_unused]] const auto written =
      write(fd_.load(std::memory_order_relaxed), &one, sizeof one);
  errno = before;
}

void LoopWakes::listen() {
  // By edges: each write is reported, and nothing need be read.
  event_assign(&event_, base_, fd_, EV_READ | EV_PERSIST | EV_ET, handleWake, this);
  eventPrioritySet(&event_, Platform::eventPriorityDefault);
  // As with the event library's own descriptors, the loop does not wait for it alone.
  event_.ev_evcallback.evcb_flags |= EVLIST_INTERNAL;
  watch(event_);
}

void LoopWakes::listenForKeepers() {
  event_assign(
      &keeping_, base_, fd_, EV_CLOSED | EV_PERSIST | EV_ET, [](evutil_socket_t, short, void*) {},
      nullptr);
  watch(keeping_);
}

LoopKeeping::LoopKeeping() : loop_(ThreadLoop::own().wakesOfBase()) { loop_->add(*this); }
LoopKeeping::~LoopKeeping() { loop_->remove(*this); }

void LoopWakes::add(LoopKeeping& keeper) {
  if (keepers_.empty()) listenForKeepers();
  keepers_.push_back(keeper);
}

void LoopWakes::remove(LoopKeeping& keeper) noexcept {
  if (!keeper.link_.isLinked()) return;
  if (threadWords->wakes != this) TARVO_ABORT("what keeps a loop is dropped on another thread");
  keeper.link_.unlink();
  if (keepers_.empty()) deleteEvent(keeping_);
}

void LoopWakes::handleWake(evutil_socket_t, short, void* arg) {
  runNotification([arg] { static_cast<LoopWakes*>(arg)->serve(); });
}

void LoopWakes::serve() {
  if (list_.any()) serve(list_.takeAndSleep());
}

void LoopWakes::serveInSlice() { serve(list_.takeAndLook()); }

void LoopWakes::sliceBegins() {
  list_.wakeUp();
  if (list_.any()) serveInSlice();
}

bool LoopWakes::fallsAsleep() {
  if (list_.fallAsleep()) return true;
  serveInSlice();
  return false;
}

void LoopWakes::lookAfterAll() noexcept {
  if (!list_.fallAsleep()) wakeUp();
}

/// Those that are still to be served. When one throws, the others go back.
class LoopWakes::Rest {
 public:
  Rest(LoopWakes& wakes, WakeList<>::Link* first) : wakes_(wakes), next_(first) {}
  Rest(const Rest&) = delete;
  Rest& operator=(const Rest&) = delete;
  ~Rest() {
    while (next_ != nullptr) {
      const auto how = wakes_.list_.join(*std::exchange(next_, next_->next));
      if (how == WakeList<>::Joined::ownerSleeps) wakes_.wakeUp();
    }
  }
  std::shared_ptr<LoopWake> take() {
    if (next_ == nullptr) return nullptr;
    WakeList<>::Link& link = *std::exchange(next_, next_->next);
    auto taken = std::move(static_cast<LoopWake&>(link).self_);
    WakeList<>::release(link);
    return taken;
  }

 private:
  LoopWakes& wakes_;
  WakeList<>::Link* next_;
};

void LoopWakes::serve(WakeList<>::Link* first) {
  Rest rest(*this, first);
  while (const auto next = rest.take()) next->woken();
}

void LoopWakes::eraBegins(LoopWakes* ofOnlyThread) noexcept {
  // A signal handler that wakes somebody meanwhile would find the eras mixed.
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  const unsigned next = era.load(std::memory_order_relaxed) + 1;
  if (ofOnlyThread != nullptr) {
    ofOnlyThread->list_.eraIs(next);
    ofOnlyThread->era_.store(next, std::memory_order_relaxed);
    // The number stays in use, as the base wants to watch it once more.
    ofOnlyThread->fd_.store(-1, std::memory_order_relaxed);
  }
  era.store(next, std::memory_order_relaxed);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void LoopWakes::renew() {
  const int ofParent = event_get_fd(&event_);
  event_del(&event_);
  if (!keepers_.empty()) event_del(&keeping_);
  ::close(ofParent);
  for (auto keeper = keepers_.begin(); keeper != keepers_.end();) {
    LoopKeeping& each = *keeper++;
    if (!each.inForkedChildToo()) each.link_.unlink();
  }
  event_assign(&event_, base_, -1, 0, handleWake, this);  // also when there is no other
  try {
    fd_.store(makeEventfd(), std::memory_order_relaxed);
    listen();
    if (!keepers_.empty()) listenForKeepers();
  } catch (const MemoryResourceException& e) {
    TARVO_TRACE(libeventTrace, 0, "other threads cannot wake this one up: {}", e.msg());
  }
  if (list_.any()) wakeUp();
}

void LoopWakes::close() noexcept {
  event_del(&event_);
  if (!keepers_.empty()) event_del(&keeping_);
  while (!keepers_.empty()) {
    LoopKeeping& first = *keepers_.begin();
    first.link_.unlink();
    first.loopEnds();
  }
  for (WakeList<>::Link* link = list_.takeAndClose(); link != nullptr;) {
    const auto forgotten = std::move(static_cast<LoopWake&>(*link).self_);
    link = link->next;
  }
}

}  // namespace Tarvo::Impl
