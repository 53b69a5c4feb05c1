#include <sys/stat.h>

#include <memory>
#include <utility>
#include <vector>

#include "platform/LibeventTrace.h"

#include "platform/FdSharers.h"
#include "platform/LibeventBase.h"
#include "platform/LibeventControls.h"

namespace Tarvo {

namespace {

/// By descriptor, the first of its controls.
using Table = std::vector<LibeventFdControl*>;

// A plain pointer, for controls that are destroyed at the thread's end. It goes with the base.
thread_local Table* sharers = nullptr;

LibeventFdControl*& first(int fd) {
  if (sharers == nullptr) {
    Impl::beforeBaseIsFreed([] { delete std::exchange(sharers, nullptr); });
    sharers = new Table;
  }
  const auto index = static_cast<std::size_t>(fd);
  if (index >= sharers->size()) sharers->resize(index + 1);
  return (*sharers)[index];
}

}  // namespace

Impl::FileIdentity Impl::FileIdentity::of(int fd) {
  struct stat status;
  if (fstat(fd, &status) != 0) return {};
  return {status.st_dev, status.st_ino};
}

void FdSharers::join(LibeventFdControl& control) {
  LibeventFdControl*& head = first(control.fd_);
  control.file_ = Impl::FileIdentity::of(control.fd_);
  for (LibeventFdControl* other = head; other != nullptr;) {
    LibeventFdControl* next = other->nextSharer_;
    if (!(other->file_ == control.file_)) {
      TARVO_TRACE(Impl::libeventTrace, 1, "descriptor {} was closed while it was watched",
                  other->fd_);
      other->delFd();
    }
    other = next;
  }
  control.nextSharer_ = std::exchange(head, &control);
  agree(control);
}

void FdSharers::leave(LibeventFdControl& control) {
  if (control.fd_ < 0 || sharers == nullptr) return;
  LibeventFdControl** link = &first(control.fd_);
  while (*link != nullptr && *link != &control) link = &(*link)->nextSharer_;
  if (*link != nullptr) *link = std::exchange(control.nextSharer_, nullptr);
}

bool FdSharers::alone(const LibeventFdControl& control) {
  return control.nextSharer_ == nullptr && first(control.fd_) == &control;
}

/// Edges only when all can do with them. When somebody was there before, all watch anew, so that
/// the registration is of this kind and of this file.
void FdSharers::agree(LibeventFdControl& newcomer) {
  bool edge = true;
  for (LibeventFdControl* each = &newcomer; each != nullptr; each = each->nextSharer_) {
    edge = edge && each->reports_ == LibeventFdControl::Reports::onceUntilServed;
  }
  newcomer.edge_ = edge;
  struct Watched {
    LibeventFdControl* control;
    bool reads;
    bool writes;
  };
  std::vector<Watched> others;
  for (LibeventFdControl* each = newcomer.nextSharer_; each != nullptr; each = each->nextSharer_) {
    others.push_back({each, event_pending(&each->readEvent_, EV_READ, nullptr) != 0,
                      event_pending(&each->writeEvent_, EV_WRITE, nullptr) != 0});
  }
  for (const Watched& other : others) {
    Impl::deleteEvent(other.control->readEvent_);
    Impl::deleteEvent(other.control->writeEvent_);
  }
  for (const Watched& other : others) {
    other.control->edge_ = edge;
    try {
      if (other.reads) other.control->watchReads();
      if (other.writes) other.control->watchWrites();
    } catch (const RuntimeException& failure) {
      TARVO_TRACE(Impl::libeventTrace, 1, "{}", failure.what());
    }
  }
}

}  // namespace Tarvo
