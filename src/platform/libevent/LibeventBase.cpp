#include "platform/libevent/LibeventBase.h"

#include <event2/event.h>
#include <event2/event_struct.h>
#include <event2/thread.h>

#include <memory>
#include <utility>

#include "platform/libevent/LibeventTrace.h"

#include "Tarvo/LibeventFactory.h"
#include "Tarvo/Thread.h"
#include "platform/libevent/LoopWakes.h"
#include "platform/libevent/Notification.h"

namespace Tarvo {

namespace {

constexpr int priorityCount = 2;

}  // namespace

namespace Impl {

void keepExceptionForLoop() noexcept { ThreadLoop::own().keepException(); }

void markBaseShared() {
  ThreadLoop* loop = ThreadLoop::find();
  LoopWakes::eraBegins(threadWords->wakes);
  if (loop == nullptr || loop->base() == nullptr) return;
  loop->attention |= LoopWords::sharedWithParent;
  loop->usableBase = nullptr;
}

void holdPosts() noexcept {
  if (threadWords->wakes != nullptr) threadWords->wakes->holdPosts();
}

void releasePosts() noexcept {
  if (threadWords->wakes != nullptr) threadWords->wakes->releasePosts();
}

void deleteEvent(event& ev) {
  leaveParentAlone();
  // event_del() locks the base, which is expensive. Skip it for an event that is in none of its
  // lists.
  if ((ev.ev_evcallback.evcb_flags & ~EVLIST_INIT) != 0) event_del(&ev);
}

void addTimeout(event& ev, const timeval& timeout) {
  if (event_add(&ev, &timeout) != 0) {
    MemoryResourceException::throwException("no room for another timeout");
  }
}

}  // namespace Impl

event_base* leCreateBase() {
  [[maybe_unused]] static const bool threads = [] {
    const int ret = evthread_use_pthreads();
    TARVO_ASSERT(ret == 0, "ret {}", ret);
    return true;
  }();
  event_config* config = event_config_new();
  event_base* base = nullptr;
  if (config != nullptr) {
    event_config_require_features(config, EV_FEATURE_ET);  // edge-triggered: epoll, in practice
    base = event_base_new_with_config(config);
    event_config_free(config);
  }
  if (base != nullptr && event_base_priority_init(base, priorityCount) != 0) {
    event_base_free(std::exchange(base, nullptr));
  }
  TARVO_ASSERT(base != nullptr, "Failed to create event_base");
  return base;
}

namespace {

void registerBase(event_base* base, Impl::ThreadLoop::Owner owner) {
  Impl::ThreadLoop::own().baseIs(base, owner);
  setMainThread();
}

[[gnu::cold, gnu::noinline]] event_base* initBase() {
  Impl::ThreadLoop& loop = Impl::ThreadLoop::own();
  Impl::leaveParentAlone();
  if (loop.base() != nullptr) return loop.base();
  // libevent has one set of callbacks per process. The static makes one thread set them.
  [[maybe_unused]] static const bool set =
      (event_set_fatal_callback(le_fatal_cb), event_set_log_callback(le_debug_cb), true);
  std::unique_ptr<event_base, void (*)(event_base*)> base(leCreateBase(), event_base_free);
  registerBase(base.get(), Impl::ThreadLoop::Owner::loop);
  return base.release();
}

}  // namespace

void leRegisterBase(event_base* base) {
  event_base* present = Impl::ThreadLoop::own().base();
  TARVO_ASSERT(present == nullptr || present == base,
               "Tried to register a base:{} but a thread_local  base already exists: {}", base,
               present);
  if (present == nullptr) return registerBase(base, Impl::ThreadLoop::Owner::program);
  setMainThread();
}

event_base* leInit() {
  event_base* base = Impl::threadWords->usableBase;
  if (base != nullptr) [[likely]]
    return base;
  return initBase();
}

void leFree() {
  Impl::ThreadLoop* loop = Impl::ThreadLoop::find();
  if (loop == nullptr) return;
  TARVO_ASSERT(!loop->dispatching, "the loop of this base is running");
  loop->free();
}

bool leInitialized() {
  const Impl::ThreadLoop* loop = Impl::ThreadLoop::find();
  return loop != nullptr && loop->base() != nullptr;
}

void leForkReinit() {
  if (leInitialized()) {
    Impl::ThreadLoop::own().rebuild();
  } else {
    leInit();
  }
}

void setMainThread() { Impl::ThreadLoop::own().onMainThreadIs(isMainThread()); }

void eventPrioritySet(event* ev, Platform::EventPriority priority) {
  TARVO_TRACE(Impl::libeventTrace, 9, "Setting priority of {} to {}", ev, priority);
  const event_callback& state = ev->ev_evcallback;
  if (state.evcb_pri == priority && (state.evcb_flags & EVLIST_ACTIVE) == 0) return;
  const int rc = event_priority_set(ev, priority);
  TARVO_ASSERT(rc == 0, "Failed to set priority on {} to {} rc {}", ev, priority, rc);
}

}  // namespace Tarvo
