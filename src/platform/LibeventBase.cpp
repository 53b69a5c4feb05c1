#include "platform/LibeventBase.h"

#include <event2/event.h>
#include <event2/event_struct.h>
#include <event2/thread.h>

#include <exception>
#include <memory>
#include <utility>
#include <vector>

#include "platform/LibeventTrace.h"

#include "Tarvo/LibeventFactory.h"
#include "Tarvo/Thread.h"
#include "platform/Notification.h"

namespace Tarvo {

namespace {

constexpr int priorityCount = 2;

thread_local bool mainThread = false;
thread_local event_base* ev_base = nullptr;
thread_local bool dispatching = false;
thread_local bool sharedWithParent = false;
thread_local std::vector<void (*)()>* releases = nullptr;
// A plain pointer, so that the loop also works while the thread's other objects are destroyed.
thread_local std::exception_ptr* keptException = nullptr;
thread_local std::vector<std::shared_ptr<void>>* keptObjects = nullptr;

}  // namespace

namespace Impl {

void keepExceptionForLoop() noexcept {
  // Only one can reach the caller, and the loop runs nothing after the first.
  if (keptException == nullptr) keptException = new std::exception_ptr(std::current_exception());
  event_base_loopbreak(ev_base);
}

void keepUntilLoopReturns(std::shared_ptr<void> object) {
  if (!dispatching) return;
  if (keptObjects == nullptr) keptObjects = new std::vector<std::shared_ptr<void>>;
  keptObjects->push_back(std::move(object));
}

void beforeBaseIsFreed(void (*release)()) {
  if (releases == nullptr) releases = new std::vector<void (*)()>;
  releases->push_back(release);
}

bool onMainThread() { return mainThread; }

void baseIsShared() { sharedWithParent = ev_base != nullptr; }

void leaveParentAlone() {
  if (sharedWithParent) leForkReinit();
}

bool insideLoop() { return dispatching; }

void deleteEvent(event& ev) {
  leaveParentAlone();
  // Asking the base takes its lock, which is much for an event that is in none of its lists.
  if ((ev.ev_evcallback.evcb_flags & ~EVLIST_INIT) != 0) event_del(&ev);
}

void addTimeout(event& ev, const timeval& timeout) {
  if (event_add(&ev, &timeout) != 0) {
    MemoryResourceException::throwException("no room for another timeout");
  }
}

namespace {

/// Set while the base runs its events.
struct DispatchMark {
  DispatchMark() { dispatching = true; }
  ~DispatchMark() {
    dispatching = false;
    delete std::exchange(keptObjects, nullptr);
  }
};

void throwKept() {
  if (keptException == nullptr) return;
  const std::unique_ptr<std::exception_ptr> kept(std::exchange(keptException, nullptr));
  std::rethrow_exception(*kept);
}

}  // namespace

int dispatchBase(event_base* base) {
  if (dispatching) return event_base_dispatch(base);  // which reports and refuses
  throwKept();                                        // left by somebody who ran the base himself
  int result = 0;
  {
    const DispatchMark mark;
    result = event_base_dispatch(base);
  }
  throwKept();
  return result;
}

}  // namespace Impl

event_base* leCreateBase() {
  static const int ret = evthread_use_pthreads();
  TARVO_ASSERT(ret == 0, "ret {}", ret);
  event_config* config = event_config_new();
  event_base* base = nullptr;
  if (config != nullptr) {
    event_config_require_features(config, EV_FEATURE_ET);
    base = event_base_new_with_config(config);
    event_config_free(config);
  }
  TARVO_ASSERT(base != nullptr, "Failed to create event_base");
  event_base_priority_init(base, priorityCount);
  return base;
}

void leRegisterBase(event_base* base) {
  TARVO_ASSERT(ev_base == nullptr || ev_base == base,
               "Tried to register a base:{} but a thread_local  base already exists: {}", base,
               ev_base);
  ev_base = base;
  setMainThread();
}

namespace {

[[gnu::cold, gnu::noinline]] event_base* initBase() {
  Impl::leaveParentAlone();
  if (ev_base != nullptr) return ev_base;
  // The callbacks belong to the process; threads that start at once must not set them together.
  [[maybe_unused]] static const bool set =
      (event_set_fatal_callback(le_fatal_cb), event_set_log_callback(le_debug_cb), true);
  leRegisterBase(leCreateBase());
  return ev_base;
}

}  // namespace

event_base* leInit() {
  if (ev_base != nullptr && !sharedWithParent) [[likely]]
    return ev_base;
  return initBase();
}

void leFree() {
  if (ev_base == nullptr) return;
  TARVO_ASSERT(!dispatching, "the loop of this base is running");
  Impl::leaveParentAlone();
  if (const std::unique_ptr<std::vector<void (*)()>> all{std::exchange(releases, nullptr)}) {
    for (const auto release : *all) release();
  }
  event_base_free(std::exchange(ev_base, nullptr));
}

bool leInitialized() { return ev_base != nullptr; }

void leForkReinit() {
  sharedWithParent = false;
  if (ev_base == nullptr) {
    leInit();
    return;
  }
  setMainThread();  // the child's only thread is its main thread
  if (event_reinit(ev_base) != 0) {
    TARVO_TRACE(Impl::libeventTrace, 1, "a descriptor that was closed is not watched any more");
  }
}

void setMainThread() { mainThread = isMainThread(); }

void eventPrioritySet(event* ev, Platform::EventPriority priority) {
  TARVO_TRACE(Impl::libeventTrace, 9, "Setting priority of {} to {}", ev, priority);
  const event_callback& state = ev->ev_evcallback;
  if (state.evcb_pri == priority && (state.evcb_flags & EVLIST_ACTIVE) == 0) return;
  const int rc = event_priority_set(ev, priority);
  TARVO_ASSERT(rc == 0, "Failed to set priority on {} to {} rc {}", ev, priority, rc);
}

}  // namespace Tarvo
