#include "platform/libevent/PendingPolls.h"

#include <event2/event.h>
#include <poll.h>

#include <algorithm>
#include <limits>

#include "platform/libevent/LibeventTrace.h"

#include "Tarvo/LibeventControls.h"
#include "platform/libevent/DescriptorTable.h"
#include "platform/libevent/ThreadLoop.h"

namespace Tarvo::Impl {

void PendingPolls::add(LibeventFdControl& control, std::size_t steps, unsigned urgency) noexcept {
  if (!control.pollPending_) {
    if (count_ == controls_.size()) pollAll();
    controls_[count_++] = &control;
    control.pollPending_ = true;
  }
  if (threadWords->inSlice && control.lastPollFoundNothing_) {
    untilSliceEnds_ = true;
  } else {
    steps_ = std::min(steps_, steps);
  }
  urgency_ = std::min(urgency_, urgency);
  if (steps_ == 0) {
    pollAll();
  } else {
    threadWords->pendingPolls = this;
  }
}

void PendingPolls::remove(LibeventFdControl& control) noexcept {
  if (!control.pollPending_) return;
  control.pollPending_ = false;
  // The control may be in the list of another thread, which has perhaps ended. Then nothing is
  // found here.
  const auto end = controls_.begin() + count_;
  count_ =
      static_cast<std::size_t>(std::remove(controls_.begin(), end, &control) - controls_.begin());
  if (count_ == 0) clear();  // so that the next control's delay is not bounded by an earlier one's
}

void PendingPolls::endStep(unsigned next) noexcept {
  if (--steps_ == 0 || next > urgency_) pollAll();
}

void PendingPolls::endSlice() noexcept {
  if (untilSliceEnds_) pollAll();
}

void PendingPolls::pollAll() noexcept {
  std::array<pollfd, std::tuple_size_v<decltype(controls_)>> states;
  for (std::size_t i = 0; i < count_; ++i) states[i] = {controls_[i]->fd_, POLLIN, 0};
  // poll() may fail, for instance when the process has lowered RLIMIT_NOFILE. Then every descriptor
  // is registered again, so that epoll reports the readable ones.
  const bool answered = poll(states.data(), count_, 0) >= 0;
  const auto waiting = controls_;  // a copy: the calls below may change the list
  const std::size_t count = count_;
  clear();
  for (std::size_t i = 0; i < count; ++i) {
    const short found = states[i].revents;
    waiting[i]->lastPollFoundNothing_ = answered && found == 0;
    if (answered && (found == 0 || (found & POLLNVAL) != 0)) continue;
    const Descriptor& descriptor = *waiting[i]->descriptor_;
    if (!descriptor.open()) {
      TARVO_TRACE(libeventTrace, 1, "descriptor {} was closed while it was watched",
                  descriptor.number);
    } else if (answered) {
      waiting[i]->ownReport_ = true;
      event_active(&waiting[i]->readEvent_, EV_READ, 1);
    } else {
      descriptor.refreshRegistration();
    }
  }
}

void PendingPolls::clear() noexcept {
  for (std::size_t i = 0; i < count_; ++i) controls_[i]->pollPending_ = false;
  count_ = 0;
  untilSliceEnds_ = false;
  steps_ = std::numeric_limits<std::size_t>::max();
  urgency_ = std::numeric_limits<unsigned>::max();
  // These may be of another thread, which has perhaps ended.
  if (threadWords->pendingPolls == this) threadWords->pendingPolls = nullptr;
}

}  // namespace Tarvo::Impl
