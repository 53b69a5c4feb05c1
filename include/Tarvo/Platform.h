#ifndef TARVO_PLATFORM_H
#define TARVO_PLATFORM_H

/// The event loop, as everything that wants to be woken up sees it.
///
/// What happens when:
/// 1. A client implements a handler and asks for its control on the thread that is to run it; that
///    thread's event base is made at the first such call.
/// 2. Through the control the client arms a timer, requests a callback or names a descriptor.
/// 3. doEventLoop() on that thread waits and calls the handlers. Events of strict-high priority run
///    before those of default priority that are ready at the same time.
/// 4. An exception from a handler is offered to the handler's exception operation. When that
///    returns false, the exception leaves doEventLoop(); the next call goes on with whatever was
///    still to be served.
///
///     struct Hello : Tarvo::Platform::TimeoutHandler {
///       void timeout() override { std::puts("hello"); }
///     };
///     Hello hello;
///     auto timer = Tarvo::Platform::getTimerControl(&hello);
///     timer->setTimeout(0.5);
///     Tarvo::Platform::doEventLoop();  // returns when nothing is left to wait for
///
/// Handlers stay the client's and must outlive their controls; controls are shared-owned. A handler
/// may do anything with any control from inside a notification: re-arm it, disarm it, destroy it. A
/// notification that destroys its handler must not throw.
/// Everything here is used on one thread: the one that asked for the control. The loop cannot be
/// run from inside a handler of the same thread: such a call returns -1 and serves nothing.
///
/// Delays are seconds. Infinity never comes (arming with it disarms), a negative delay is due at
/// once, a huge one saturates and NaN fails an assertion. A timer counts from the moment it is set;
/// its clock is the kernel's coarse one, with steps of some milliseconds.

#include <fmt/format.h>

#include <cstdint>
#include <iosfwd>
#include <memory>

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
  /// Drops a pending expiry and makes timeout() due once, `seconds` from now.
  virtual void setTimeout(double seconds) = 0;
  /// Disarms; harmless when not armed.
  virtual void delTimeout() = 0;
  /// Seconds left, 0.0 when the expiry is past, infinity when not armed. On the event loop told in
  /// steps of its coarse clock.
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

/// A new control has no descriptor, wants reads and does not want writes.
class TARVO_EXPORT FdControl {
 public:
  virtual ~FdControl();
  /// Chooses whether readFdEvent() is called while the descriptor can be read.
  virtual void setReads(bool on) = 0;
  /// Chooses whether writeFdEvent() is called when the descriptor can be written: once, after which
  /// setWrites(true) asks for the next.
  virtual void setWrites(bool on) = 0;
  /// Binds to a descriptor and makes it non-blocking. Aborts when it is none. Throws
  /// RuntimeException, as do setReads() and setWrites(), when it cannot be watched; the control
  /// then has no descriptor.
  virtual void setFd(int fd) = 0;
  /// Withdraws all notifications and forgets the descriptor. To be called before closing it:
  /// whoever gets the number next would otherwise not be told of its events.
  virtual void delFd() = 0;
  /// -1 without a descriptor.
  virtual int getFd() const = 0;
  /// Withdraws both notifications; the descriptor and the two choices stay.
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

/// Shows opaque values of one named type in traces: through the introspection map when it has a
/// printer for the type, otherwise as the hexadecimal digits of the value's bytes, in the order in
/// which they stand in memory.
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

/// Runs the calling thread's loop until nothing is left to wait for. Returns 1 then, 0 when the
/// loop was broken, -1 on an error.
TARVO_EXPORT int doEventLoop();
/// The same for `maxSeconds`, also when there is nothing to wait for, and returns 0. With infinity
/// there is no limit and the call returns as doEventLoop() does.
TARVO_EXPORT int doEventLoop(double maxSeconds);

/// Ends the calling thread's running loop: after the present notification (the scheduler's ends
/// with the present run, or the present task group) doEventLoop() returns 0. Whatever is still to
/// be served waits for the next doEventLoop(). Does nothing outside of a loop. A task that a
/// TaskWaker wakes does it for other threads and for signal handlers.
TARVO_EXPORT void stopEventLoop();

/// The loop for functions that wait for a condition and look at it after each return: with virtual
/// time one jump and one pass, otherwise doEventLoop(maxSeconds).
TARVO_EXPORT int doEventLoopInWaitfor(double maxSeconds);

/// Virtual time, for tests and simulations. While it is on, a loop with nothing ready moves the
/// thread's clock to the first timer instead of sleeping. Off at start. The switch is one for the
/// process, to be changed on the main thread only; the clock is the thread's own. Switching it off
/// keeps the offset, so that time() never goes back. docs/Time.md is the manual.
TARVO_EXPORT void setFastForward(bool on);
TARVO_EXPORT bool fastForward();
/// Moves the thread's clock on by `seconds`, without running the loop. Fails an assertion while
/// virtual time is off.
TARVO_EXPORT void fastForwardBy(double seconds);
/// Calls `notifier` whenever the switch changes; a function is noted once, and for good. To be
/// called on the main thread, at start.
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
struct fmt::formatter<Tarvo::Platform::EventPriority> : fmt::formatter<std::string> {
  auto format(Tarvo::Platform::EventPriority priority, fmt::format_context& context) const {
    const auto text = Tarvo::Platform::isEventPriorityValid(priority)
                          ? Tarvo::Platform::eventPriorityToString(priority)
                          : fmt::format("Invalid EventPriority={}", unsigned{priority});
    return fmt::formatter<std::string>::format(text, context);
  }
};

#endif
