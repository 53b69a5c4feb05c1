#ifndef TARVO_LIBEVENTCONTROLS_H
#define TARVO_LIBEVENTCONTROLS_H

/// The control classes of the event-loop backend, for code that makes a control a member of its own
/// class, or that breaks a loop. All other code uses the factories of Tarvo/Platform.h. This header
/// needs libevent's (<event2/event_struct.h>); no other header of the library includes it.
///
/// A control is bound to the loop of the thread that makes it, and is used on that thread. The
/// handler stays the caller's and must outlive the control.

#include <event2/event.h>
#include <event2/event_struct.h>

#include <boost/intrusive/set_hook.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>

#include "Tarvo/Export.h"
#include "Tarvo/List.h"
#include "Tarvo/Platform.h"
#include "Tarvo/detail/DeferredFdControl.h"
#include "Tarvo/detail/Lifeline.h"

namespace Tarvo {

namespace Impl {
class DescriptorTable;
class PendingPolls;
class VirtualTimers;
struct Descriptor;

/// A timer that was set under fast forward. VirtualTimers holds it, not the event base.
struct VirtualTimer : boost::intrusive::set_base_hook<> {
  explicit VirtualTimer(event& timerEvent) : ev(timerEvent) {}

  event& ev;                         // made active when the timer is due
  timeval due{0, 0};                 // on the clock of VirtualTimers
  VirtualTimers* waitsIn = nullptr;  // null while the timer is not pending there
};
}  // namespace Impl

/// A one-shot timer on the event base.
class TARVO_EXPORT LibeventTimerControl : public Platform::TimerControl {
 public:
  LibeventTimerControl(Platform::TimeoutHandler* handler, Platform::EventPriority priority);
  LibeventTimerControl(const LibeventTimerControl&) = delete;
  LibeventTimerControl& operator=(const LibeventTimerControl&) = delete;
  ~LibeventTimerControl() override;

  void setTimeout(double seconds) override;
  void delTimeout() override;
  double remainingTimeout() const override;

 protected:
  bool armed() const;
  /// The same as setTimeout(0.0), in fewer instructions: deferred calls use it.
  void setTimeoutToNow();
  /// Makes the event active at once: the handler runs in the present turn of the loop, after the
  /// events that are active already.
  void activate();
  Impl::Lifeline& lifeline() { return lifeline_; }

 private:
  static void handleTimeout(evutil_socket_t fd, short what, void* arg);
  void handler();
  void assign();
  void bind();

  Platform::TimeoutHandler* handler_;
  Platform::EventPriority priority_;
  event event_;
  Impl::VirtualTimer virtual_{event_};
  Impl::Lifeline lifeline_;
};

/// A deferred call: a timer without delay whose handler is the control itself.
class TARVO_EXPORT LibeventCallbackControl : public Platform::CallbackControl,
                                             private Platform::TimeoutHandler,
                                             private LibeventTimerControl {
 public:
  explicit LibeventCallbackControl(Platform::CallbackHandler* handler);
  ~LibeventCallbackControl() override;

  void requestCallback() override;
  void cancelCallback() override;
  bool pendingCallback() const override;
  void timeout() override;

 protected:
  using LibeventTimerControl::activate;

 private:
  Platform::CallbackHandler* handler_;
};

/// Watches one descriptor. The read event is persistent. The write event is one-shot:
/// setWrites(true) arms it again.
class TARVO_EXPORT LibeventFdControl : public Impl::DeferredFdControl {
 public:
  /// Whether readability is reported in every turn of the loop while there is data, or once until
  /// the control is re-armed.
  enum class Reports : std::uint8_t { everyTurn, onceUntilRearmed };

  explicit LibeventFdControl(Platform::FdEventHandler* handler);
  /// Reports readability once until it is re-armed; see DeferredFdControl.h. `forgotten` is called
  /// when the descriptor turns out to have been closed while it was watched.
  LibeventFdControl(Platform::FdEventHandler* handler, std::function<void()> forgotten);
  LibeventFdControl(const LibeventFdControl&) = delete;
  LibeventFdControl& operator=(const LibeventFdControl&) = delete;
  ~LibeventFdControl() override;

  void setReads(bool on) override;
  void setWrites(bool on) override;
  void setFd(int fd) override;
  void delFd() override;
  int getFd() const override;
  void clearEvents() override;

  void rearmRead(std::size_t steps, unsigned urgency) noexcept override;
  void rearmReadDrained() noexcept override;
  bool namesOtherFile() const override;

 private:
  friend class Impl::DescriptorTable;
  friend class Impl::PendingPolls;
  friend struct Impl::Descriptor;
  using Notify = void (Platform::FdEventHandler::*)(int fd);

  static void handleFdRead(evutil_socket_t fd, short what, void* arg);
  static void handleFdWrite(evutil_socket_t fd, short what, void* arg);
  void notify(Notify notification, const event& ev, void (LibeventFdControl::*watchAgain)());
  // add...() adds the event and returns whether libevent accepted it. watch...() throws when it did
  // not; and it polls once when the descriptor is shared and edge-triggered, because the kernel may
  // have reported the present edge to another control already.
  void watchReads();
  void watchWrites();
  bool addReads();
  bool addWrites();
  bool add(event& ev, short flags, event_callback_fn callback);
  void unwatch(event& ev);
  void reportIfReady(event& ev, short what);
  [[noreturn]] void refuse();
  bool edgeTriggered() const;
  bool alone() const;
  // For a change of the trigger mode: pause() deletes the events; when all controls of the
  // descriptor have done so, resume() adds them again. False when libevent refused.
  void pause();
  bool resume();

  Platform::FdEventHandler* handler_;
  int fd_ = -1;
  bool reads_ = true;
  bool writes_ = false;
  event readEvent_;
  event writeEvent_;
  Impl::Lifeline lifeline_;
  Reports reports_;
  bool pollPending_ = false;  // entered in PendingPolls
  bool lastPollFoundNothing_ = false;
  bool ownReport_ = false;    // the next report comes from our poll(), not from libevent's wait
  bool pausedReads_ = false;  // what resume() must add
  bool pausedWrites_ = false;
  std::function<void()> forgotten_;
  Impl::Descriptor* descriptor_ = nullptr;  // null exactly when fd_ is -1
  ListLinkNode sharersLink_;                // in descriptor_->controls
};

/// Breaks the thread's loop after a delay, unless it is destroyed first.
class TARVO_EXPORT EvLoopBreak {
 public:
  explicit EvLoopBreak(const timeval& timeout);
  EvLoopBreak(const EvLoopBreak&) = delete;
  EvLoopBreak& operator=(const EvLoopBreak&) = delete;
  ~EvLoopBreak();

 private:
  static void handleBaseLoopBreak(evutil_socket_t fd, short what, void* arg);

  event event_;
};

}  // namespace Tarvo

#endif
