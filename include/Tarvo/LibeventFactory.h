#ifndef TARVO_LIBEVENTFACTORY_H
#define TARVO_LIBEVENTFACTORY_H

/// The event-loop backend, for code that needs the base itself: to add events of its own, to free
/// the base before a thread ends, or to rebuild it in a forked child. All other code uses
/// Tarvo/Platform.h, whose functions call these.
///
/// Each thread has at most one base, made at first use. All operations apply to the calling thread.
/// Run the base through doEventLoop() only, which passes exceptions on.

#include <memory>

#include "Tarvo/Export.h"
#include "Tarvo/Platform.h"

struct event;
struct event_base;
struct timeval;

extern "C" {
/// Sets `out` to the expiry of the earliest pending timeout, on the base's own clock, and returns
/// 0; non-zero when none is pending. Covers timeouts of every kind: plain, common, and of I/O
/// events, whoever added them. (One exception: an event for reading or writing on descriptor -1
/// cannot be seen.)
TARVO_EXPORT int event_base_get_first_timeout(event_base* base, timeval* out);
/// Makes every pending timeout of the base due `delta` earlier; their order stays.
TARVO_EXPORT void event_base_timeout_subtract_offset(event_base* base, const timeval* delta);
}

namespace Tarvo {

/// A new base with two priorities, owned by the caller. Fails an assertion when it cannot be made.
TARVO_EXPORT event_base* leCreateBase();
/// Makes `base` the thread's base. Fails an assertion when the thread has a different one.
TARVO_EXPORT void leRegisterBase(event_base* base);
/// The thread's base, made if there is none.
TARVO_EXPORT event_base* leInit();
/// Frees the thread's base, if any. All of its controls must have been destroyed. Fails an
/// assertion when called inside the loop. Without this call, a base made by leInit() is freed when
/// the thread ends, after its thread-local objects. A base passed to leRegisterBase() is left to
/// the program.
TARVO_EXPORT void leFree();
TARVO_EXPORT bool leInitialized();
/// Rebuilds the base in a forked child, or makes one. A child that continues with its loop calls
/// this first. (Until then parent and child share the kernel's registrations. A control that a
/// child uses or destroys before this call rebuilds the base by itself, so that the parent's
/// registrations stay. A child that was forked inside a handler can run its loop only after that
/// handler has returned.)
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
/// Advances the thread's clock by `delta`, and makes its pending timeouts due that much earlier.
TARVO_EXPORT void applyFastForwardDelta(const timeval* delta);
/// How far the thread's clock must jump so that its first timer is due, with a margin of 100
/// microseconds; zero when it is overdue. Returns false when no timer is pending.
TARVO_EXPORT bool fastForwardDelayToFirstTimer(timeval* out);
/// Jumps by `delta` and serves one pass of what is then ready.
TARVO_EXPORT int eventLoopFastForward(const timeval* delta);
/// The same, jumping to the first timer, or by `maxSeconds` when that is sooner or no timer is
/// pending.
TARVO_EXPORT int eventLoopFastForwardToFirstTimer(double maxSeconds);

/// The default time limit, in seconds, of functions that wait for a condition: the variable
/// WAITFOR_DEFAULT at the first call, or infinity. An invalid value is reported on standard error
/// once.
TARVO_EXPORT double waitForDefaultTimeout();

/// The event library's own reports. A fatal error fails an assertion; messages become traces of
/// "TarvoLibevent".
[[noreturn]] TARVO_EXPORT void le_fatal_cb(int err);
TARVO_EXPORT void le_debug_cb(int severity, const char* msg);

}  // namespace Tarvo

#endif
