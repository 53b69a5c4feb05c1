#include <fcntl.h>
#include <poll.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/LibeventTrace.h"

#include "Tarvo/Allocator.h"
#include "Tarvo/LibeventControls.h"
#include "Tarvo/LibeventFactory.h"
#include "platform/DeferredFdControl.h"
#include "platform/FdSharers.h"
#include "platform/LibeventBase.h"
#include "platform/Notification.h"
#include "platform/ServedReads.h"

namespace Tarvo {

namespace {

void assignUnbound(event& ev, event_base* base) {
  event_assign(&ev, base, -1, 0, nullptr, nullptr);
  eventPrioritySet(&ev, Platform::eventPriorityDefault);
}

}  // namespace

LibeventFdControl::LibeventFdControl(Platform::FdEventHandler* handler)
    : handler_(handler), reports_(Reports::everyTurn) {
  event_base* base = leInit();
  assignUnbound(readEvent_, base);
  assignUnbound(writeEvent_, base);
}

LibeventFdControl::LibeventFdControl(Platform::FdEventHandler* handler,
                                     std::function<void()> forgotten)
    : LibeventFdControl(handler) {
  reports_ = Reports::onceUntilServed;
  forgotten_ = std::move(forgotten);
}

LibeventFdControl::~LibeventFdControl() { LibeventFdControl::delFd(); }

void LibeventFdControl::setFd(int fd) {
  const int flags = fcntl(fd, F_GETFL);
  TARVO_CHECK(flags >= 0);
  const int result = fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  TARVO_CHECK(result == 0);
  // Whatever happens below, nothing of the old descriptor may come under the new one's number.
  LibeventFdControl::delFd();
  fd_ = fd;
  FdSharers::join(*this);
  if (reads_) watchReads();
  if (writes_) watchWrites();
}

void LibeventFdControl::setReads(bool on) {
  reads_ = on;
  if (fd_ < 0) return;
  if (on) {
    watchReads();
  } else {
    unwatch(readEvent_);
  }
}

void LibeventFdControl::setWrites(bool on) {
  writes_ = on;
  if (fd_ < 0) return;
  if (on) {
    watchWrites();
  } else {
    unwatch(writeEvent_);
  }
}

void LibeventFdControl::watchReads() {
  if (reports_ == Reports::everyTurn) {
    watch(readEvent_, EV_READ | EV_PERSIST, handleFdRead);
  } else if (!edge_) {
    watch(readEvent_, EV_READ, handleFdRead);  // readServed() brings it back
  } else {
    watch(readEvent_, EV_READ | EV_PERSIST | EV_ET, handleFdRead);
    // For another one's sake the kernel has perhaps reported this edge already.
    if (!FdSharers::alone(*this)) reportIfReady(readEvent_, EV_READ);
  }
}

void LibeventFdControl::watchWrites() {
  if (!edge_) return watch(writeEvent_, EV_WRITE, handleFdWrite);
  watch(writeEvent_, EV_WRITE | EV_ET, handleFdWrite);
  if (!FdSharers::alone(*this)) reportIfReady(writeEvent_, EV_WRITE);
}

void LibeventFdControl::reportIfReady(event& ev, short what) {
  pollfd state{fd_, static_cast<short>(what == EV_READ ? POLLIN : POLLOUT), 0};
  if (poll(&state, 1, 0) == 1 && (state.revents & POLLNVAL) == 0) event_active(&ev, what, 1);
}

void LibeventFdControl::readServed(std::size_t steps, unsigned urgency) noexcept {
  const bool watched = fd_ >= 0 && readEvent_.ev_fd == fd_;
  if (!watched || reports_ == Reports::everyTurn) return;
  if (edge_) return Impl::servedReads().add(*this, steps, urgency);
  if (event_pending(&readEvent_, EV_READ, nullptr) == 0) watchReadsAnew();
}

void LibeventFdControl::watchReadsAnew() noexcept {
  try {
    watchReads();
  } catch (const std::exception& failure) {
    TARVO_TRACE(Impl::libeventTrace, 1, "{}", failure.what());
  }
}

bool LibeventFdControl::namesOtherFile() const {
  const Impl::FileIdentity now = Impl::FileIdentity::of(fd_);
  return !(now == Impl::FileIdentity() || now == file_);
}

void LibeventFdControl::watch(event& ev, short flags, event_callback_fn callback) {
  Impl::deleteEvent(ev);
  event_assign(&ev, leInit(), fd_, flags, callback, this);
  eventPrioritySet(&ev, Platform::eventPriorityDefault);
  if (event_add(&ev, nullptr) != 0) {
    const int error = errno;
    const int fd = getFd();
    delFd();  // half a binding is none
    RuntimeException::throwException(
        fmt::format("cannot watch descriptor {}: {}", fd, std::strerror(error)));
  }
}

void LibeventFdControl::unwatch(event& ev) {
  if (&ev == &readEvent_) Impl::servedReads().remove(*this);
  Impl::deleteEvent(ev);
  ev.ev_fd = -1;
}

void LibeventFdControl::clearEvents() {
  unwatch(readEvent_);
  unwatch(writeEvent_);
}

void LibeventFdControl::delFd() {
  clearEvents();
  FdSharers::leave(*this);
  fd_ = -1;
}

int LibeventFdControl::getFd() const { return fd_; }

void LibeventFdControl::handleFdRead(evutil_socket_t, short, void* arg) {
  Impl::runNotification([self = static_cast<LibeventFdControl*>(arg)] {
    Impl::servedReads().remove(*self);
    self->notify(&Platform::FdEventHandler::readFdEvent, self->readEvent_,
                 &LibeventFdControl::watchReads);
  });
}

void LibeventFdControl::handleFdWrite(evutil_socket_t, short, void* arg) {
  Impl::runNotification([self = static_cast<LibeventFdControl*>(arg)] {
    self->notify(&Platform::FdEventHandler::writeFdEvent, self->writeEvent_,
                 &LibeventFdControl::watchWrites);
  });
}

void LibeventFdControl::notify(Notify notification, const event& ev,
                               void (LibeventFdControl::*watchAgain)()) {
  Platform::FdEventHandler* handler = handler_;
  const Impl::Lifeline::Watch watch(lifeline_);
  try {
    (handler->*notification)(getFd());
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    // A report that was refused will not be served: there must be another.
    const bool once = watch.alive() && reports_ == Reports::onceUntilServed;
    if (once && fd_ >= 0 && ev.ev_fd == fd_) (this->*watchAgain)();
    // A control that the notification destroyed has no descriptor any more.
    if (!handler->handleFdException(watch.alive() ? getFd() : -1)) throw;
  }
}

std::shared_ptr<Platform::FdControl> getLeFdControl(Platform::FdEventHandler* handler) {
  return std::allocate_shared<LibeventFdControl>(Allocator<LibeventFdControl>(), handler);
}

std::shared_ptr<Platform::FdControl> Impl::getDeferredFdControl(Platform::FdEventHandler* handler,
                                                                std::function<void()> forgotten) {
  return std::allocate_shared<LibeventFdControl>(Allocator<LibeventFdControl>(), handler,
                                                 std::move(forgotten));
}

bool Impl::namesOtherFile(const Platform::FdControl& control) {
  return static_cast<const LibeventFdControl&>(control).namesOtherFile();
}

}  // namespace Tarvo
