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
  reports_ = Reports::onceUntilRearmed;
  forgotten_ = std::move(forgotten);
}

LibeventFdControl::~LibeventFdControl() { LibeventFdControl::delFd(); }

void LibeventFdControl::setFd(int fd) {
  const int flags = fcntl(fd, F_GETFL);
  TARVO_CHECK(flags >= 0);
  const int result = fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  TARVO_CHECK(result == 0);
  // Drop the old descriptor first: no event of it may be delivered under the new number, whatever
  // fails below.
  LibeventFdControl::delFd();
  const Impl::Lifeline::Watch watch(lifeline_);
  Impl::descriptorTable().forgetClosed(fd);
  if (!watch.alive()) return;
  LibeventFdControl::delFd();  // a notified owner may have given this control a descriptor
  Impl::descriptorTable().join(*this, fd);
  if ((reads_ && !addReads()) || (writes_ && !addWrites())) refuse();
  if (!alone()) descriptor_->refreshRegistration();
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

bool LibeventFdControl::edgeTriggered() const {
  return descriptor_ != nullptr && descriptor_->edgeTriggered;
}

bool LibeventFdControl::alone() const {
  return descriptor_ == nullptr ||
         std::next(descriptor_->controls.begin()) == descriptor_->controls.end();
}

bool LibeventFdControl::addReads() {
  if (reports_ == Reports::everyTurn) return add(readEvent_, EV_READ | EV_PERSIST, handleFdRead);
  if (edgeTriggered()) return add(readEvent_, EV_READ | EV_PERSIST | EV_ET, handleFdRead);
  return add(readEvent_, EV_READ, handleFdRead);  // one-shot: rearmRead() adds it again
}

bool LibeventFdControl::addWrites() {
  return add(writeEvent_, edgeTriggered() ? EV_WRITE | EV_ET : EV_WRITE, handleFdWrite);
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

/// The kernel reports an edge once per registration, and the controls of a descriptor share one. It
/// may have reported the present edge before this event was added.
void LibeventFdControl::reportIfReady(event& ev, short what) {
  if (!edgeTriggered() || alone()) return;
  pollfd state{fd_, static_cast<short>(what == EV_READ ? POLLIN : POLLOUT), 0};
  const int ready = poll(&state, 1, 0);
  if (ready == 0 || (state.revents & POLLNVAL) != 0 || !descriptor_->open()) return;
  if (ready < 0) return descriptor_->refreshRegistration();  // poll() failed; epoll reports then
  ownReport_ = true;
  event_active(&ev, what, 1);
}

void LibeventFdControl::refuse() {
  const int error = errno;
  const int fd = fd_;
  delFd();  // never watch only one of two wanted directions
  RuntimeException::throwException(
      fmt::format("cannot watch descriptor {}: {}", fd, std::strerror(error)));
}

void LibeventFdControl::pause() {
  // A one-shot read event that has fired is not pending, but the control still wants reports: its
  // descriptor tells.
  pausedReads_ = readEvent_.ev_fd == fd_;
  pausedWrites_ = event_pending(&writeEvent_, EV_WRITE, nullptr) != 0;
  Impl::deleteEvent(readEvent_);
  Impl::deleteEvent(writeEvent_);
}

bool LibeventFdControl::resume() {
  return (!pausedReads_ || addReads()) && (!pausedWrites_ || addWrites());
}

void LibeventFdControl::rearmRead(std::size_t steps, unsigned urgency) noexcept {
  const bool watched = descriptor_ != nullptr && readEvent_.ev_fd == fd_;
  if (!watched || reports_ == Reports::everyTurn) return;
  if (edgeTriggered()) return descriptor_->table.pendingPolls().add(*this, steps, urgency);
  if (event_pending(&readEvent_, EV_READ, nullptr) != 0 || !descriptor_->open() || addReads())
    return;
  TARVO_TRACE(Impl::libeventTrace, 1, "cannot watch descriptor {}: {}", fd_, std::strerror(errno));
  delFd();
}

void LibeventFdControl::rearmReadDrained() noexcept {
  if (!edgeTriggered()) rearmRead(0, 0);  // edge-triggered: new data makes an edge by itself
}

bool LibeventFdControl::namesOtherFile() const {
  const Impl::FileIdentity now = Impl::FileIdentity::of(fd_);
  return descriptor_ != nullptr && !(now == Impl::FileIdentity() || now == descriptor_->file);
}

void LibeventFdControl::unwatch(event& ev) {
  if (&ev == &readEvent_ && pollPending_) descriptor_->table.pendingPolls().remove(*this);
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
        if (self->pollPending_) self->descriptor_->table.pendingPolls().remove(*self);
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
    // The handler threw, so nobody will re-arm the control. Watch again at once.
    const bool once = watch.alive() && reports_ == Reports::onceUntilRearmed;
    try {
      if (once && fd_ >= 0 && ev.ev_fd == fd_) (this->*watchAgain)();
    } catch (const RuntimeException&) {  // the descriptor is gone; report the handler's exception
    }
    // handler_ outlives the control, which the notification may have destroyed.
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
