#ifndef TARVO_LIBEVENTFACTORY_H
#define TARVO_LIBEVENTFACTORY_H

/// The event-loop backend, for those who need the base itself: to add events of their own, to free
/// it before a thread ends, or to rebuild it in a forked child. Everybody else uses
/// Tarvo/Platform.h, whose factories and loops forward here.
///
/// Each thread has at most one base, made at first use. All operations concern the calling thread.
/// The base is to be run through doEventLoop() only, which passes exceptions on.

#include <memory>

#include "Tarvo/Export.h"
#include "Tarvo/Platform.h"

struct event;
struct event_base;

namespace Tarvo {

/// A new base with two priorities; fails an assertion when there is none to be had. The caller owns
/// it.
TARVO_EXPORT event_base* leCreateBase();
/// Makes `base` the thread's base. Fails an assertion when the thread has a different one.
TARVO_EXPORT void leRegisterBase(event_base* base);
/// The thread's base, made when there is none.
TARVO_EXPORT event_base* leInit();
/// Frees the thread's base, if any. All of its controls must be gone. Fails an assertion when
/// called from inside the loop.
TARVO_EXPORT void leFree();
TARVO_EXPORT bool leInitialized();
/// Rebuilds the base in a forked child, or makes one. Until then parent and child share what they
/// watch: the child must call it before it uses or destroys a control, and before it calls exit().
TARVO_EXPORT void leForkReinit();
/// Remembers whether the thread is the process's main thread.
TARVO_EXPORT void setMainThread();

TARVO_EXPORT std::shared_ptr<Platform::TimerControl> getLeTimerControl(
    Platform::TimeoutHandler* handler);
TARVO_EXPORT std::shared_ptr<Platform::TimerControl> getLeTimerControl(
    Platform::TimeoutHandler* handler, Platform::EventPriority priority);
TARVO_EXPORT std::shared_ptr<Platform::CallbackControl> getLeCallbackControl(
    Platform::CallbackHandler* handler);
TARVO_EXPORT std::shared_ptr<Platform::FdControl> getLeFdControl(Platform::FdEventHandler* handler);

/// Gives an assigned event its priority. Fails an assertion when the event does not take it.
TARVO_EXPORT void eventPrioritySet(event* ev, Platform::EventPriority priority);

TARVO_EXPORT int doLeEventLoop();
TARVO_EXPORT int doLeEventLoop(double maxSeconds);
/// Runs the loop for at most `seconds` of real time.
TARVO_EXPORT int eventLoopTimeout(double seconds);

/// The event library's own reports. A fatal error fails an assertion; messages become traces of
/// "TarvoLibevent".
[[noreturn]] TARVO_EXPORT void le_fatal_cb(int err);
TARVO_EXPORT void le_debug_cb(int severity, const char* msg);

}  // namespace Tarvo

#endif
