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

void stepEnds(unsigned next) noexcept { descriptorTable().servedReads().stepEnds(next); }

FileIdentity FileIdentity::of(int fd) {
  struct stat status;
  if (fstat(fd, &status) != 0) return {};
  return {status.st_dev, status.st_ino};
}

void Descriptor::enter(LibeventFdControl& control) {
  controls.push_back(control);
  control.descriptor_ = this;
  control.fd_ = number;
  if (control.reports_ == LibeventFdControl::Reports::everyTurn) ++byLevels;
  agree();
}

void Descriptor::remove(LibeventFdControl& control) noexcept {
  control.clearEvents();
  Controls::unlink(control);
  if (control.reports_ == LibeventFdControl::Reports::everyTurn) --byLevels;
  control.descriptor_ = nullptr;
  control.fd_ = -1;
}

void Descriptor::agree() {
  while (edge != (byLevels == 0)) {  // those who are refused may change it back
    edge = byLevels == 0;
    for (LibeventFdControl& each : controls) each.pause();
    for (auto next = controls.begin(); next != controls.end();) {
      LibeventFdControl& each = *next++;
      if (each.resume()) continue;
      TARVO_TRACE(libeventTrace, 1, "cannot go on watching descriptor {}", number);
      remove(each);
    }
  }
}

// The library asks the kernel for something only when an event for it is the first. Nobody waits
// for the end alone, so an event for that always is; and a registration that has got lost, because
// the file was closed, is made again with it. Whatever is changed, the kernel looks anew.
void Descriptor::renew() const {
  event end;
  const auto kind = static_cast<short>(edge ? EV_CLOSED | EV_ET : EV_CLOSED);
  event_assign(
      &end, leInit(), number, kind, [](evutil_socket_t, short, void*) {}, nullptr);
  if (event_add(&end, nullptr) == 0) event_del(&end);
}

DescriptorTable::~DescriptorTable() {
  servedReads_.clear();
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
    const auto tell = control.forgotten_;
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
  descriptor->agree();
  if (descriptor->controls.empty()) descriptor->table.descriptors_.erase(descriptor->number);
}

}  // namespace Tarvo::Impl
