#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "platform/LibeventTrace.h"

#include "Tarvo/Allocator.h"
#include "Tarvo/LibeventFactory.h"
#include "platform/LibeventBase.h"
#include "platform/LibeventControls.h"

namespace Tarvo {

namespace {

void assignUnbound(event& ev, event_base* base) {
  event_assign(&ev, base, -1, 0, nullptr, nullptr);
  eventPrioritySet(&ev, Platform::eventPriorityDefault);
}

}  // namespace

LibeventFdControl::LibeventFdControl(Platform::FdEventHandler* handler) : handler_(handler) {
  event_base* base = leInit();
  assignUnbound(readEvent_, base);
  assignUnbound(writeEvent_, base);
}

LibeventFdControl::~LibeventFdControl() { LibeventFdControl::delFd(); }

void LibeventFdControl::setFd(int fd) {
  fd_ = fd;
  const int flags = fcntl(fd, F_GETFL);
  TARVO_CHECK(flags >= 0);
  const int result = fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  TARVO_CHECK(result == 0);
  // Whatever happens below, nothing of the old descriptor may come under the new one's number.
  Impl::deleteEvent(readEvent_);
  Impl::deleteEvent(writeEvent_);
  if (reads_) watch(readEvent_, EV_READ | EV_PERSIST, handleFdRead);
  if (writes_) watch(writeEvent_, EV_WRITE, handleFdWrite);
}

void LibeventFdControl::setReads(bool on) {
  reads_ = on;
  if (fd_ < 0) return;
  if (on) {
    watch(readEvent_, EV_READ | EV_PERSIST, handleFdRead);
  } else {
    unwatch(readEvent_);
  }
}

void LibeventFdControl::setWrites(bool on) {
  writes_ = on;
  if (fd_ < 0) return;
  if (on) {
    watch(writeEvent_, EV_WRITE, handleFdWrite);
  } else {
    unwatch(writeEvent_);
  }
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
  Impl::deleteEvent(ev);
  ev.ev_fd = -1;
}

void LibeventFdControl::clearEvents() {
  unwatch(readEvent_);
  unwatch(writeEvent_);
}

void LibeventFdControl::delFd() {
  clearEvents();
  fd_ = -1;
}

int LibeventFdControl::getFd() const { return fd_; }

void LibeventFdControl::handleFdRead(evutil_socket_t, short, void* arg) {
  Impl::runNotification([arg] {
    static_cast<LibeventFdControl*>(arg)->notify(&Platform::FdEventHandler::readFdEvent);
  });
}

void LibeventFdControl::handleFdWrite(evutil_socket_t, short, void* arg) {
  Impl::runNotification([arg] {
    static_cast<LibeventFdControl*>(arg)->notify(&Platform::FdEventHandler::writeFdEvent);
  });
}

void LibeventFdControl::notify(Notify notification) {
  Platform::FdEventHandler* handler = handler_;
  const Impl::Lifeline::Watch watch(lifeline_);
  try {
    (handler->*notification)(getFd());
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    // A control that the notification destroyed has no descriptor any more.
    if (!handler->handleFdException(watch.alive() ? getFd() : -1)) throw;
  }
}

std::shared_ptr<Platform::FdControl> getLeFdControl(Platform::FdEventHandler* handler) {
  return std::allocate_shared<LibeventFdControl>(Allocator<LibeventFdControl>(), handler);
}

}  // namespace Tarvo
