#ifndef TARVO_LIBEVENTCONTROLS_H
#define TARVO_LIBEVENTCONTROLS_H

/// The controls of the event-loop backend themselves, for those who put one into an object of
/// their own, or break a loop. Everybody else asks the factories of Tarvo/Platform.h. This header
/// needs libevent's (<event2/event_struct.h>), and no other header of the library includes it.
///
/// As with the factories, all is bound to the loop of the thread that makes it, and is used on that
/// thread; handlers stay the caller's.

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
class ServedReads;
class VirtualTimers;
struct Descriptor;

/// A timer that was set under fast forward.
struct VirtualTimer : boost::intrusive::set_base_hook<> {
  explicit VirtualTimer(event& timerEvent) : ev(timerEvent) {}

  event& ev;                         // what the base gets when it is due
  timeval due{0, 0};                 // on the clock of those that wait
  VirtualTimers* waitsIn = nullptr;  // null when it does not wait
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
  /// As setTimeout(0.0), which is what most deferred calls need.
  void setTimeoutToNow();
  /// Makes the handler's turn come in the present turn of the loop, behind what is active already.
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

/// Readiness of one descriptor. The read event persists; the write event is spent when it fires and
/// comes back with the next setWrites(true).
class TARVO_EXPORT LibeventFdControl : public Impl::DeferredFdControl {
 public:
  /// Whether readability is reported in every turn of the loop, or once until it was served.
  enum class Reports : std::uint8_t { everyTurn, onceUntilServed };

  explicit LibeventFdControl(Platform::FdEventHandler* handler);
  /// Reports readability once until it was served; see DeferredFdControl.h.
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

  void readServed(std::size_t steps, unsigned urgency) noexcept override;
  void readDrained() noexcept override;
  bool namesOtherFile() const override;

 private:
  friend class Impl::DescriptorTable;
  friend class Impl::ServedReads;
  friend struct Impl::Descriptor;
  using Notify = void (Platform::FdEventHandler::*)(int fd);

  static void handleFdRead(evutil_socket_t fd, short what, void* arg);
  static void handleFdWrite(evutil_socket_t fd, short what, void* arg);
  void notify(Notify notification, const event& ev, void (LibeventFdControl::*watchAgain)());
  // Watching also reports what the kernel has reported to another one already; adding does not,
  // and says whether it was accepted.
  void watchReads();
  void watchWrites();
  bool addReads();
  bool addWrites();
  bool add(event& ev, short flags, event_callback_fn callback);
  void unwatch(event& ev);
  void reportIfReady(event& ev, short what);
  [[noreturn]] void refuse();
  bool edge() const;
  bool alone() const;
  // Deletes the events and, when that has been done to all sharers, adds them again.
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
  bool served_ = false;       // and waits to be asked for
  bool ownReport_ = false;    // the next report comes from a poll(), not from the kernel's turn
  bool pausedReads_ = false;  // what resume() adds
  bool pausedWrites_ = false;
  std::function<void()> forgotten_;
  Impl::Descriptor* descriptor_ = nullptr;  // set when fd_ is
  ListLinkNode sharersLink_;                // linked when fd_ is set
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
