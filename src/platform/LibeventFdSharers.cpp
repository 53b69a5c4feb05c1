#include <sys/stat.h>

#include <new>
#include <utility>
#include <vector>

#include "platform/LibeventTrace.h"

#include "Tarvo/LibeventControls.h"
#include "platform/FdSharers.h"
#include "platform/LibeventBase.h"
#include "platform/ServedReads.h"

namespace Tarvo {

namespace {

/// By descriptor, the first of its controls.
using Table = std::vector<LibeventFdControl*>;

// A plain pointer, for controls that are destroyed at the thread's end. It goes with the base.
thread_local Table* sharers = nullptr;

LibeventFdControl*& first(int fd) {
  if (sharers == nullptr) {
    Impl::beforeBaseIsFreed([] {
      Impl::servedReads().clear();
      delete std::exchange(sharers, nullptr);
    });
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
    if (other->file_ == control.file_) {
      other = other->nextSharer_;
      continue;
    }
    TARVO_TRACE(Impl::libeventTrace, 1, "descriptor {} was closed while it was watched",
                other->fd_);
    other->delFd();
    if (const auto& tell = other->forgotten_) tell();
    other = head;  // whoever was told may have done anything
  }
  control.nextSharer_ = std::exchange(head, &control);
  agree(control);
}

void FdSharers::leave(LibeventFdControl& control) noexcept {
  if (control.fd_ < 0 || sharers == nullptr) return;
  LibeventFdControl*& head = first(control.fd_);
  LibeventFdControl** link = &head;
  while (*link != nullptr && *link != &control) link = &(*link)->nextSharer_;
  if (*link == nullptr) return;
  *link = std::exchange(control.nextSharer_, nullptr);
  if (head == nullptr || head->edge_) return;
  try {
    agree(*head);
  } catch (const std::bad_alloc&) {
    TARVO_TRACE(Impl::libeventTrace, 1, "no memory: {} goes on being watched by levels", head->fd_);
  }
}

bool FdSharers::alone(const LibeventFdControl& control) {
  return control.nextSharer_ == nullptr && first(control.fd_) == &control;
}

/// Edges only when all can do with them. When that changes, or somebody has come, all watch anew,
/// so that the registration is of this kind and of this file.
void FdSharers::agree(LibeventFdControl& head) {
  bool edge = true;
  struct Watched {
    LibeventFdControl* control;
    bool reads;
    bool writes;
  };
  std::vector<Watched> watched;
  for (LibeventFdControl* each = &head; each != nullptr; each = each->nextSharer_) {
    edge = edge && each->reports_ == LibeventFdControl::Reports::onceUntilServed;
    // A report that was not served yet has perhaps used its event up, but not the wish for more.
    const bool reads = each->readEvent_.ev_fd == each->fd_;
    const bool writes = event_pending(&each->writeEvent_, EV_WRITE, nullptr) != 0;
    if (reads || writes) watched.push_back({each, reads, writes});
  }
  const bool change = edge != head.edge_ || head.nextSharer_ != nullptr;
  for (LibeventFdControl* each = &head; each != nullptr; each = each->nextSharer_) {
    each->edge_ = edge;
    if (!change) continue;
    Impl::deleteEvent(each->readEvent_);
    Impl::deleteEvent(each->writeEvent_);
  }
  if (!change) return;
  for (const Watched& each : watched) {
    try {
      if (each.reads) each.control->watchReads();
      if (each.writes) each.control->watchWrites();
    } catch (const RuntimeException& failure) {
      TARVO_TRACE(Impl::libeventTrace, 1, "{}", failure.what());
    }
  }
}

}  // namespace Tarvo
