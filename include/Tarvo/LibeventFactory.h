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
struct timeval;

extern "C" {
/// Sets `out` to the expiry of the earliest pending timeout, on the base's own clock, and returns
/// 0; non-zero when none is pending. Counts timeouts of every kind: plain, common, and those of I/O
/// events, whoever added them. (One cannot be seen: an event
/// for reading or writing that was given descriptor -1.)
TARVO_EXPORT int event_base_get_first_timeout(event_base* base, timeval* out);
/// Makes every pending timeout of the base due `delta` earlier; their order stays.
TARVO_EXPORT void event_base_timeout_subtract_offset(event_base* base, const timeval* delta);
}

namespace Tarvo {

/// A new base with two priorities; fails an assertion when there is none to be had. The caller owns
/// it.
TARVO_EXPORT event_base* leCreateBase();
/// Makes `base` the thread's base. Fails an assertion when the thread has a different one.
TARVO_EXPORT void leRegisterBase(event_base* base);
/// The thread's base, made when there is none.
TARVO_EXPORT event_base* leInit();
/// Frees the thread's base, if any. All of its controls must be gone. Fails an assertion when
/// called from inside the loop. A thread that ends frees the base that leInit() has made for it,
/// after its thread-local objects; one that leRegisterBase() was given stays the program's.
TARVO_EXPORT void leFree();
TARVO_EXPORT bool leInitialized();
/// Rebuilds the base in a forked child, or makes one. A child that goes on with its loop calls it
/// first. (Until then parent and child share what they watch; controls that a child uses or
/// destroys without it rebuild the base by themselves, so that the parent is left in peace. A child
/// that was forked by a handler runs its loop only after that handler has returned.)
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
TARVO_EXPORT int doLeEventLoopInWaitfor(double maxSeconds);
/// Runs the loop for at most `seconds` of real time.
TARVO_EXPORT int eventLoopTimeout(double seconds);

/// The switch of virtual time and its notifiers: see Platform::setFastForward().
TARVO_EXPORT void setLeFastForward(bool on);
TARVO_EXPORT bool leFastForward();
TARVO_EXPORT void leRegisterFastForwardChangeNotifier(void (*notifier)());

/// The calling thread's virtual offset in seconds.
TARVO_EXPORT double leVirtualTimeOffset();
/// Moves the thread's clock `delta` on and its pending timeouts as much earlier.
TARVO_EXPORT void applyFastForwardDelta(const timeval* delta);
/// How far the thread's clock must jump for its first timer to be due, with a margin of 100
/// microseconds, or zero when it is overdue; false without a timer.
TARVO_EXPORT bool fastForwardDelayToFirstTimer(timeval* out);
/// Jumps by `delta` and serves one pass of what is then ready.
TARVO_EXPORT int eventLoopFastForward(const timeval* delta);
/// The same up to the first timer, or by `maxSeconds` when that is less or there is none.
TARVO_EXPORT int eventLoopFastForwardToFirstTimer(double maxSeconds);

/// The default limit of functions that wait for a condition, in seconds: WAITFOR_DEFAULT as it was
/// at the first call, or infinity. A value that is no number is reported on standard error once.
TARVO_EXPORT double waitForDefaultTimeout();

/// The event library's own reports. A fatal error fails an assertion; messages become traces of
/// "TarvoLibevent".
[[noreturn]] TARVO_EXPORT void le_fatal_cb(int err);
TARVO_EXPORT void le_debug_cb(int severity, const char* msg);

}  // namespace Tarvo

#endif
