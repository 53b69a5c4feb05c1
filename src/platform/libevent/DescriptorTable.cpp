#include <sys/stat.h>

#include <memory>

#include "platform/libevent/LibeventTrace.h"

#include "Tarvo/LibeventFactory.h"
#include "platform/libevent/DescriptorTable.h"
#include "platform/libevent/LibeventBase.h"
#include "platform/libevent/ThreadLoop.h"

namespace Tarvo::Impl {

DescriptorTable& descriptorTable() {
  std::shared_ptr<void>& table = ThreadLoop::own().part(ThreadLoop::Part::descriptors);
  if (table == nullptr) [[unlikely]]
    table = std::make_shared<DescriptorTable>();
  return *static_cast<DescriptorTable*>(table.get());
}

void endRootStep(unsigned nextUrgency) noexcept { threadWords->pendingPolls->endStep(nextUrgency); }

void endSlice() noexcept { threadWords->pendingPolls->endSlice(); }

FileIdentity FileIdentity::of(int fd) {
  struct stat status;
  if (fstat(fd, &status) != 0) return {};
  return {status.st_dev, status.st_ino};
}

void Descriptor::enter(LibeventFdControl& control) {
  controls.push_back(control);
  control.descriptor_ = this;
  control.fd_ = number;
  if (control.reports_ == LibeventFdControl::Reports::everyTurn) ++levelTriggeredCount;
  updateTriggerMode();
}

void Descriptor::remove(LibeventFdControl& control) noexcept {
  control.clearEvents();
  Controls::unlink(control);
  if (control.reports_ == LibeventFdControl::Reports::everyTurn) --levelTriggeredCount;
  control.descriptor_ = nullptr;
  control.fd_ = -1;
}

void Descriptor::updateTriggerMode() {
  // Every event of a descriptor must have the same mode, so all are deleted before the first is
  // added again. A control that libevent refuses leaves, which may change the mode back: hence the
  // loop.
  while (edgeTriggered != (levelTriggeredCount == 0)) {
    edgeTriggered = levelTriggeredCount == 0;
    for (LibeventFdControl& each : controls) each.pause();
    for (auto next = controls.begin(); next != controls.end();) {
      LibeventFdControl& each = *next++;
      if (each.resume()) continue;
      TARVO_TRACE(libeventTrace, 1, "cannot go on watching descriptor {}", number);
      remove(each);
    }
  }
}

// libevent calls epoll_ctl() only when the first event of a kind is added to a descriptor. No
// control waits for EV_CLOSED, so an event for it is always the first of its kind. Adding it makes
// the registration again where closing the file has removed it, and any epoll_ctl() makes the
// kernel report the present readiness once more.
void Descriptor::refreshRegistration() const {
  event end;
  const auto kind = static_cast<short>(edgeTriggered ? EV_CLOSED | EV_ET : EV_CLOSED);
  event_assign(
      &end, leInit(), number, kind, [](evutil_socket_t, short, void*) {}, nullptr);
  if (event_add(&end, nullptr) == 0) event_del(&end);
}

DescriptorTable::~DescriptorTable() {
  pendingPolls_.clear();
  for (auto& [number, descriptor] : descriptors_) {
    for (LibeventFdControl& each : descriptor.controls) each.descriptor_ = nullptr;
  }
}

void DescriptorTable::forgetClosed(int fd) {
  while (true) {
    const auto found = descriptors_.find(fd);
    if (found == descriptors_.end() || found->second.open()) return;
    LibeventFdControl& control = *found->second.controls.first();
    TARVO_TRACE(libeventTrace, 1, "descriptor {} was closed while it was watched", fd);
    const auto tell = control.forgotten_;  // a copy: the call may destroy the control
    control.delFd();
    if (tell) tell();
  }
}

void DescriptorTable::join(LibeventFdControl& control, int fd) {
  descriptors_.try_emplace(fd, *this, fd).first->second.enter(control);
}

void DescriptorTable::leave(LibeventFdControl& control) noexcept {
  Descriptor* descriptor = control.descriptor_;
  if (descriptor == nullptr) return;
  descriptor->remove(control);
  descriptor->updateTriggerMode();
  if (descriptor->controls.empty()) descriptor->table.descriptors_.erase(descriptor->number);
}

}  // namespace Tarvo::Impl
