#ifndef TARVO_PLATFORM_H
#define TARVO_PLATFORM_H

/// The interface of the event loop: timers, callbacks and descriptors.
///
/// What happens when:
/// 1. A client implements a handler and asks for its control on the thread that is to run it; that
///    thread's event base is made at the first such call.
/// 2. Through the control the client arms a timer, requests a callback or names a descriptor.
/// 3. doEventLoop() on that thread waits and calls the handlers. Events of strict-high priority run
///    before those of default priority that are ready at the same time.
/// 4. When a handler throws, its exception operation is called. If that returns false, the
///    exception leaves doEventLoop(); the next call serves the events that were still pending.
///
///     struct Hello : Tarvo::Platform::TimeoutHandler {
///       void timeout() override { std::puts("hello"); }
///     };
///     Hello hello;
///     auto timer = Tarvo::Platform::getTimerControl(&hello);
///     timer->setTimeout(0.5);
///     Tarvo::Platform::doEventLoop();  // returns when nothing is left to wait for
///
/// A handler stays the client's and must outlive its control; a control is owned by its shared
/// pointers. Inside a notification a handler may do anything with any control: re-arm it, disarm
/// it, destroy it. A notification that destroys its handler must not throw.
///
/// A control is used on the thread that asked for it. The loop cannot be run inside a handler of
/// the same thread: such a call returns -1 and serves nothing.
///
/// Delays are seconds. Infinity means never (it disarms the timer), a negative delay is due at
/// once, a huge one saturates and NaN fails an assertion. A delay counts from the moment of the
/// call. Timers use the kernel's coarse clock, which has steps of some milliseconds.

#include <fmt/core.h>

#include <cstdint>
#include <iosfwd>
#include <memory>

#include "Tarvo/Exception.h"
#include "Tarvo/Export.h"
#include "Tarvo/String.h"

namespace Tarvo {

/// The library clock in seconds: the monotonic clock plus the calling thread's virtual offset.
TARVO_EXPORT double time();

namespace Platform {

using Tarvo::time;

class TARVO_EXPORT TimeoutHandler {
 public:
  virtual ~TimeoutHandler();
  virtual void timeout() = 0;
  /// Called while an exception from timeout() is in flight: true swallows it, false lets it leave
  /// the loop.
  virtual bool handleTimeoutException();
};

class TARVO_EXPORT CallbackHandler {
 public:
  virtual ~CallbackHandler();
  virtual void callback() = 0;
  /// As TimeoutHandler::handleTimeoutException().
  virtual bool handleCallbackException();
};

class TARVO_EXPORT FdEventHandler {
 public:
  virtual ~FdEventHandler();
  virtual void readFdEvent(int fd) = 0;
  virtual void writeFdEvent(int fd) = 0;
  /// As TimeoutHandler::handleTimeoutException(), with the control's current descriptor.
  virtual bool handleFdException(int fd);
};

class TARVO_EXPORT TimerControl {
 public:
  virtual ~TimerControl();
  /// Arms the timer: timeout() is called once, `seconds` from now. Replaces an earlier expiry.
  virtual void setTimeout(double seconds) = 0;
  /// Disarms; harmless when not armed.
  virtual void delTimeout() = 0;
  /// Seconds left; 0.0 when the timer is overdue, infinity when it is not armed. Controls on the
  /// event loop round it to the steps of the coarse clock.
  virtual double remainingTimeout() const = 0;
};

class TARVO_EXPORT CallbackControl {
 public:
  virtual ~CallbackControl();
  /// Makes callback() run once, soon, from the event loop. Repeated requests are one.
  virtual void requestCallback() = 0;
  virtual void cancelCallback() = 0;
  virtual bool pendingCallback() const = 0;
};

/// A new control has no descriptor; reads are on, writes are off.
class TARVO_EXPORT FdControl {
 public:
  virtual ~FdControl();
  /// Whether readFdEvent() is called while the descriptor is readable.
  virtual void setReads(bool on) = 0;
  /// Whether writeFdEvent() is called when the descriptor is writable. One-shot: each further call
  /// needs another setWrites(true).
  virtual void setWrites(bool on) = 0;
  /// Watches a descriptor and makes it non-blocking. Aborts when it is not open. Throws
  /// RuntimeException, as setReads() and setWrites() do, when it cannot be watched; the control
  /// then has no descriptor.
  virtual void setFd(int fd) = 0;
  /// Stops all notifications and forgets the descriptor. Call it before closing the descriptor:
  /// otherwise a control that next watches a file of this number may miss events.
  virtual void delFd() = 0;
  /// -1 without a descriptor.
  virtual int getFd() const = 0;
  /// Stops both notifications. The descriptor and both settings stay.
  virtual void clearEvents() = 0;
};

enum EventPriority : std::uint8_t {
  eventPriorityStrictHigh = 0,  // served before any default event that is ready in the same pass
  eventPriorityDefault = 1,
};

TARVO_EXPORT bool isEventPriorityValid(EventPriority priority);
/// The name of the value, empty when it is not valid.
TARVO_EXPORT String eventPriorityToString(EventPriority priority);
TARVO_EXPORT std::ostream& operator<<(std::ostream& out, EventPriority priority);

/// Formats opaque values of one named type for traces: with the type's printer from the
/// introspection map, or else as the hexadecimal digits of the value's bytes, in memory order.
class TARVO_EXPORT ValuePrinter {
 public:
  /// `size` in bytes.
  ValuePrinter(const String& typeName, int size);
  ValuePrinter(const ValuePrinter&) = default;
  ValuePrinter& operator=(const ValuePrinter&) = default;

  virtual String toString(const void* value);
  virtual ~ValuePrinter();

 private:
  String customToString(const void* value) const;  // empty without a printer
  String dumpHex(const void* value) const;

  String typeName_;
  int size_;
};

TARVO_EXPORT std::shared_ptr<ValuePrinter> getValuePrinter(const String& typeName, int size);

TARVO_EXPORT std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler);
TARVO_EXPORT std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler,
                                                           EventPriority priority);
TARVO_EXPORT std::shared_ptr<CallbackControl> getCallbackControl(CallbackHandler* handler);
TARVO_EXPORT std::shared_ptr<FdControl> getFdControl(FdEventHandler* handler);

/// Runs the calling thread's loop until nothing is left to wait for, and returns 1. Returns 0 when
/// the loop was broken, -1 on an error.
TARVO_EXPORT int doEventLoop();
/// Runs the loop for `maxSeconds`, also when there is nothing to wait for, and returns 0. With
/// infinity it is the same as doEventLoop().
TARVO_EXPORT int doEventLoop(double maxSeconds);

/// Ends the calling thread's running loop: doEventLoop() returns 0 after the present notification
/// (a scheduler's notification then ends with the present run, or the present task group's run).
/// Events that are still pending are served by the next doEventLoop(). Does nothing outside of a
/// loop. Other threads and signal handlers wake a task that calls this, through a TaskWaker.
TARVO_EXPORT void stopEventLoop();

/// For functions that wait for a condition and test it after each return: under virtual time one
/// jump and one pass, otherwise doEventLoop(maxSeconds).
TARVO_EXPORT int doEventLoopInWaitfor(double maxSeconds);

/// Virtual time, for tests and simulations. While it is on, a loop with nothing ready advances the
/// thread's clock to the first timer instead of sleeping. It is off at start. There is one switch
/// per process, changed on the main thread only, and one clock per thread. Switching it off keeps
/// the offset, so that time() never goes back. docs/Time.md is the manual.
TARVO_EXPORT void setFastForward(bool on);
TARVO_EXPORT bool fastForward();
/// Advances the thread's clock by `seconds` without running the loop. Fails an assertion while
/// virtual time is off.
TARVO_EXPORT void fastForwardBy(double seconds);
/// Calls `notifier` whenever the switch changes. A function is registered once and cannot be
/// removed. Call this on the main thread, at start.
TARVO_EXPORT void registerFastForwardChangeNotifier(void (*notifier)());

/// Not available in this library: both fail an assertion.
TARVO_EXPORT void refCountingEnabledIs(bool on);
TARVO_EXPORT bool refCountingEnabled();

/// Always false.
TARVO_EXPORT bool releaseMode();

}  // namespace Platform
}  // namespace Tarvo

/// In messages a valid priority shows as its name.
template <>
struct fmt::formatter<Tarvo::Platform::EventPriority> : fmt::formatter<fmt::string_view> {
  TARVO_EXPORT fmt::format_context::iterator format(Tarvo::Platform::EventPriority priority,
                                                    fmt::format_context& context) const;
};

#endif
