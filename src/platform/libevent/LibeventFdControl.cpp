#include <fcntl.h>
#include <poll.h>

#include <cerrno>
#include <cstring>
#include <iterator>
#include <utility>

#include "platform/libevent/LibeventTrace.h"

#include "Tarvo/Allocator.h"
#include "Tarvo/LibeventControls.h"
#include "Tarvo/LibeventFactory.h"
#include "platform/libevent/DeferredFdControl.h"
#include "platform/libevent/DescriptorTable.h"
#include "platform/libevent/LibeventBase.h"
#include "platform/libevent/Notification.h"

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
  const Impl::Lifeline::Watch watch(lifeline_);
  Impl::descriptorTable().forgetClosed(fd);
  if (!watch.alive()) return;
  LibeventFdControl::delFd();  // whoever was told may have bound it
  Impl::descriptorTable().join(*this, fd);
  if ((reads_ && !addReads()) || (writes_ && !addWrites())) refuse();
  if (!alone()) descriptor_->renew();
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

bool LibeventFdControl::edge() const { return descriptor_ != nullptr && descriptor_->edge; }

bool LibeventFdControl::alone() const {
  return descriptor_ == nullptr ||
         std::next(descriptor_->controls.begin()) == descriptor_->controls.end();
}

bool LibeventFdControl::addReads() {
  if (reports_ == Reports::everyTurn) return add(readEvent_, EV_READ | EV_PERSIST, handleFdRead);
  if (edge()) return add(readEvent_, EV_READ | EV_PERSIST | EV_ET, handleFdRead);
  return add(readEvent_, EV_READ, handleFdRead);  // readServed() brings it back
}

bool LibeventFdControl::addWrites() {
  return add(writeEvent_, edge() ? EV_WRITE | EV_ET : EV_WRITE, handleFdWrite);
}

bool LibeventFdControl::add(event& ev, short flags, event_callback_fn callback) {
  Impl::deleteEvent(ev);
  event_assign(&ev, leInit(), fd_, flags, callback, this);
  eventPrioritySet(&ev, Platform::eventPriorityDefault);
  return event_add(&ev, nullptr) == 0;
}

void LibeventFdControl::watchReads() {
  if (!addReads()) refuse();
  reportIfReady(readEvent_, EV_READ);
}

void LibeventFdControl::watchWrites() {
  if (!addWrites()) refuse();
  reportIfReady(writeEvent_, EV_WRITE);
}

/// For another one's sake the kernel has perhaps reported this edge already.
void LibeventFdControl::reportIfReady(event& ev, short what) {
  if (!edge() || alone()) return;
  pollfd state{fd_, static_cast<short>(what == EV_READ ? POLLIN : POLLOUT), 0};
  const int ready = poll(&state, 1, 0);
  if (ready == 0 || (state.revents & POLLNVAL) != 0 || !descriptor_->open()) return;
  if (ready < 0) return descriptor_->renew();  // the kernel would not say
  ownReport_ = true;
  event_active(&ev, what, 1);
}

void LibeventFdControl::refuse() {
  const int error = errno;
  const int fd = fd_;
  delFd();  // half a binding is none
  RuntimeException::throwException(
      fmt::format("cannot watch descriptor {}: {}", fd, std::strerror(error)));
}

void LibeventFdControl::pause() {
  // A report that was not served yet has perhaps used its event up, but not the wish for more.
  pausedReads_ = readEvent_.ev_fd == fd_;
  pausedWrites_ = event_pending(&writeEvent_, EV_WRITE, nullptr) != 0;
  Impl::deleteEvent(readEvent_);
  Impl::deleteEvent(writeEvent_);
}

bool LibeventFdControl::resume() {
  return (!pausedReads_ || addReads()) && (!pausedWrites_ || addWrites());
}

void LibeventFdControl::readServed(std::size_t steps, unsigned urgency) noexcept {
  const bool watched = descriptor_ != nullptr && readEvent_.ev_fd == fd_;
  if (!watched || reports_ == Reports::everyTurn) return;
  if (edge()) return descriptor_->table.servedReads().add(*this, steps, urgency);
  if (event_pending(&readEvent_, EV_READ, nullptr) != 0 || !descriptor_->open() || addReads())
    return;
  TARVO_TRACE(Impl::libeventTrace, 1, "cannot watch descriptor {}: {}", fd_, std::strerror(errno));
  delFd();
}

void LibeventFdControl::readDrained() noexcept {
  if (!edge()) readServed(0, 0);  // an edge that comes will be reported by itself
}

bool LibeventFdControl::namesOtherFile() const {
  const Impl::FileIdentity now = Impl::FileIdentity::of(fd_);
  return descriptor_ != nullptr && !(now == Impl::FileIdentity() || now == descriptor_->file);
}

void LibeventFdControl::unwatch(event& ev) {
  if (&ev == &readEvent_ && served_) descriptor_->table.servedReads().remove(*this);
  Impl::deleteEvent(ev);
  ev.ev_fd = -1;
}

void LibeventFdControl::clearEvents() {
  unwatch(readEvent_);
  unwatch(writeEvent_);
}

void LibeventFdControl::delFd() {
  clearEvents();
  Impl::DescriptorTable::leave(*this);
  fd_ = -1;
}

int LibeventFdControl::getFd() const { return fd_; }

void LibeventFdControl::handleFdRead(evutil_socket_t, short, void* arg) {
  auto* self = static_cast<LibeventFdControl*>(arg);
  const bool own = std::exchange(self->ownReport_, false);
  Impl::runNotification(
      [self] {
        if (self->served_) self->descriptor_->table.servedReads().remove(*self);
        self->notify(&Platform::FdEventHandler::readFdEvent, self->readEvent_,
                     &LibeventFdControl::watchReads);
      },
      !own);
}

void LibeventFdControl::handleFdWrite(evutil_socket_t, short, void* arg) {
  auto* self = static_cast<LibeventFdControl*>(arg);
  const bool own = std::exchange(self->ownReport_, false);
  Impl::runNotification(
      [self] {
        self->notify(&Platform::FdEventHandler::writeFdEvent, self->writeEvent_,
                     &LibeventFdControl::watchWrites);
      },
      !own);
}

void LibeventFdControl::notify(Notify notification, const event& ev,
                               void (LibeventFdControl::*watchAgain)()) {
  Platform::FdEventHandler* handler = handler_;
  const Impl::Lifeline::Watch watch(lifeline_);
  try {
    (handler->*notification)(getFd());
  } catch (...) {
    Impl::passCancellation();
    // A report that was refused will not be served: there must be another.
    const bool once = watch.alive() && reports_ == Reports::onceUntilServed;
    try {
      if (once && fd_ >= 0 && ev.ev_fd == fd_) (this->*watchAgain)();
    } catch (const RuntimeException&) {  // it has no descriptor any more; the first failure counts
    }
    // A control that the notification destroyed has no descriptor any more.
    if (!handler->handleFdException(watch.alive() ? getFd() : -1)) throw;
  }
}

std::shared_ptr<Platform::FdControl> getLeFdControl(Platform::FdEventHandler* handler) {
  return std::allocate_shared<LibeventFdControl>(Allocator<LibeventFdControl>(), handler);
}

std::shared_ptr<Impl::DeferredFdControl> Impl::getDeferredFdControl(
    Platform::FdEventHandler* handler, std::function<void()> forgotten) {
  return std::allocate_shared<LibeventFdControl>(Allocator<LibeventFdControl>(), handler,
                                                 std::move(forgotten));
}

}  // namespace Tarvo
