#include "platform/libevent/ThreadLoop.h"

#include <event2/event.h>
#include <pthread.h>

#include <limits>
#include <new>
#include <utility>

#include "platform/libevent/LibeventTrace.h"

#include "Tarvo/LibeventFactory.h"
#include "Tarvo/TimerWheel.h"
#include "foundation/Uncancelled.h"
#include "platform/libevent/EventTime.h"
#include "platform/libevent/LoopWakes.h"
#include "platform/libevent/VirtualTimers.h"

namespace Tarvo::Impl {

constinit LoopWords noLoop;
thread_local constinit LoopWords* threadWords = &noLoop;

ThreadLoop& ThreadLoop::make() {
  static const pthread_key_t key = [] {
    pthread_key_t made = 0;
    if (pthread_key_create(&made, threadEnds) != 0) throw std::bad_alloc();
    return made;
  }();
  std::unique_ptr<ThreadLoop> loop(new ThreadLoop);
  if (pthread_setspecific(key, loop.get()) != 0) throw std::bad_alloc();
  threadWords = loop.get();
  return *loop.release();
}

ThreadLoop::ThreadLoop() = default;

void ThreadLoop::threadEnds(void* loop) { delete static_cast<ThreadLoop*>(loop); }

ThreadLoop::~ThreadLoop() {
  dispatching = false;  // the thread may have been ended from inside it
  dropKeptObjects();
  if (owner_ == Owner::loop) {
    free();
  } else {
    releaseParts();
    closeWakes();
  }
  virtualTimers_.reset();
  while (wheels_ != nullptr) remove(*wheels_);
  threadWords = &noLoop;
}

void ThreadLoop::baseIs(event_base* base, Owner owner) {
  // Allocated here, not at first use: a timer may be set while an exception is in flight, when
  // there may be no memory.
  virtualTimers_ = std::make_unique<VirtualTimers>(base);
  base_ = usableBase = base;
  owner_ = owner;
}

void ThreadLoop::releaseParts() {
  // The destructor of a part uses the loop, and may make a part again that was destroyed before. So
  // start over after each.
  for (std::size_t i = 0; i < parts_.size();) {
    if (const auto part = std::exchange(parts_[i], nullptr)) {
      i = 0;
    } else {
      ++i;
    }
  }
}

std::shared_ptr<LoopWakes> ThreadLoop::wakesOfBase() {
  event_base* base = leInit();
  if (wakesOfBase_ == nullptr) {
    wakesOfBase_ = std::make_shared<LoopWakes>(base);
    wakes = wakesOfBase_.get();
  }
  return wakesOfBase_;
}

void ThreadLoop::closeWakes() {
  wakes = nullptr;
  if (const auto closed = std::move(wakesOfBase_)) closed->close();
}

void ThreadLoop::free() {
  if (base_ == nullptr) return;
  if ((attention & sharedWithParent) != 0) rebuild();
  releaseParts();
  closeWakes();
  for (TimerWheel* wheel = wheels_; wheel != nullptr; wheel = wheel->nextOfThread_) {
    // Its master timer is freed with the base.
    wheel->masterExpiry_ = std::numeric_limits<double>::infinity();
  }
  virtualTimers_.reset();
  usableBase = nullptr;
  const Uncancelled whole;  // a cancellation must not unwind through libevent
  event_base_free(std::exchange(base_, nullptr));
  owner_ = Owner::loop;
}

void ThreadLoop::rebuild() {
  attention &= static_cast<std::uint8_t>(~sharedWithParent);
  usableBase = base_;
  setMainThread();  // a forked child has one thread, which is its main thread
  if (event_reinit(base_) != 0) {
    TARVO_TRACE(libeventTrace, 1, "a descriptor that was closed is not watched any more");
  }
  if (wakes != nullptr) wakes->renew();
}

void ThreadLoop::offsetIs(const timeval& offset) {
  offset_ = offset;
  virtualOffset = toSeconds(offset);
}

/// Set while the base runs its events.
struct ThreadLoop::Dispatching {
  Dispatching(ThreadLoop& threadLoop, Limit limit) : loop(threadLoop) {
    loop.dispatching = true;
    loop.limited_ = limit == Limit::some;
    loop.finished_ = false;
  }
  ~Dispatching() {
    loop.dispatching = false;
    loop.dropKeptObjects();
  }
  ThreadLoop& loop;
};

int ThreadLoop::dispatch(Limit limit) {
  event_base* base = leInit();
  if (dispatching) return event_base_dispatch(base);  // libevent warns and returns -1
  throwKept();  // from a program that ran the base by itself, without this function
  stopped_ = false;
  int result = 0;
  do {
    // What was woken while the loop was not running, or as its last notification ended.
    while (wakes != nullptr && !wakes->fallsAsleep()) {
    }
    result = dispatchOnce(limit);
  } while (result == 1 && wakes != nullptr && wakes->any());
  return result;
}

int ThreadLoop::dispatchOnce(Limit limit) {
  if (limit == Limit::none && onlyEmptyWheelsLeft()) return 1;
  int result = 0;
  {
    const Dispatching mark(*this, limit);
    result = event_base_dispatch(base_);
  }
  throwKept();
  return finished_ && !stopped_ ? 1 : result;
}

void ThreadLoop::stop() {
  if (!dispatching) return;
  stopped_ = true;
  event_base_loopbreak(base_);
}

void ThreadLoop::keepException() noexcept {
  // The caller can get only one exception. After the first the loop runs nothing more.
  if (kept_ == nullptr) kept_ = std::current_exception();
  event_base_loopbreak(base_);
}

void ThreadLoop::throwKept() {
  if (kept_ != nullptr) std::rethrow_exception(std::exchange(kept_, nullptr));
}

void ThreadLoop::keepObject(KeptObject& place, std::shared_ptr<void> object) noexcept {
  if (!dispatching || object == nullptr) return;
  if (place.object == nullptr) place.next = std::exchange(keptObjects_, &place);
  // An earlier object in this place can go: its exception has been handled.
  place.object.swap(object);
}

void ThreadLoop::dropKeptObjects() {
  while (keptObjects_ != nullptr) {
    KeptObject& first = *keptObjects_;
    keptObjects_ = first.next;
    const auto object = std::move(first.object);  // its destructor may destroy `first`
  }
}

void ThreadLoop::attend() {
  // The notification may have forked; then this is the child.
  if ((attention & sharedWithParent) != 0) rebuild();
  if (!dispatching || limited_ || !onlyEmptyWheelsLeft()) return;
  finished_ = true;
  event_base_loopbreak(base_);
}

bool ThreadLoop::onlyEmptyWheelsLeft() {
  if ((attention & wheelMayBeEmpty) == 0) return false;
  int unwanted = 0;
  for (const TimerWheel* wheel = wheels_; wheel != nullptr; wheel = wheel->nextOfThread_) {
    if (wheel->armedForNothing()) ++unwanted;
  }
  if (unwanted == 0) {
    attention &= static_cast<std::uint8_t>(~wheelMayBeEmpty);
    return false;
  }
  constexpr unsigned all = EVENT_BASE_COUNT_ADDED | EVENT_BASE_COUNT_VIRTUAL;
  const int beside = virtualTimers_ == nullptr ? 0 : virtualTimers_->uncounted();
  return event_base_get_num_events(base_, all) + beside == unwanted;
}

void ThreadLoop::add(TimerWheel& wheel) {
  wheel.loop_ = this;
  wheel.nextOfThread_ = std::exchange(wheels_, &wheel);
}

void ThreadLoop::remove(TimerWheel& wheel) {
  TimerWheel** link = &wheels_;
  while (*link != &wheel) link = &(*link)->nextOfThread_;
  *link = wheel.nextOfThread_;
  wheel.loop_ = nullptr;
}

}  // namespace Tarvo::Impl
