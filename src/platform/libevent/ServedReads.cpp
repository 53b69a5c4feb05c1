#include "platform/libevent/ServedReads.h"

#include <event2/event.h>
#include <poll.h>

#include <algorithm>
#include <limits>

#include "platform/libevent/LibeventTrace.h"

#include "Tarvo/LibeventControls.h"
#include "platform/libevent/DescriptorTable.h"
#include "platform/libevent/ThreadLoop.h"

namespace Tarvo::Impl {

void ServedReads::add(LibeventFdControl& control, std::size_t steps, unsigned urgency) noexcept {
  if (!control.served_) {
    if (count_ == controls_.size()) ask();
    controls_[count_++] = &control;
    control.served_ = true;
  }
  steps_ = std::min(steps_, steps);
  urgency_ = std::min(urgency_, urgency);
  if (steps_ == 0) {
    ask();
  } else {
    threadWords->readsPutOff = true;
  }
}

void ServedReads::remove(LibeventFdControl& control) noexcept {
  if (!control.served_) return;
  control.served_ = false;
  const auto end = controls_.begin() + count_;
  // One that waits in the list of another thread, now perhaps ended, is not in this one.
  count_ =
      static_cast<std::size_t>(std::remove(controls_.begin(), end, &control) - controls_.begin());
  if (!any()) clear();  // the next one to come brings a patience of its own
}

void ServedReads::stepEnds(unsigned next) noexcept {
  if (any() && (--steps_ == 0 || next > urgency_)) ask();
  threadWords->readsPutOff = any();
}

void ServedReads::ask() noexcept {
  std::array<pollfd, std::tuple_size_v<decltype(controls_)>> states;
  for (std::size_t i = 0; i < count_; ++i) states[i] = {controls_[i]->fd_, POLLIN, 0};
  // It may be refused, as when the process has lowered its limit of descriptors.
  const bool answered = poll(states.data(), count_, 0) >= 0;
  const auto waiting = controls_;
  const std::size_t count = count_;
  clear();
  for (std::size_t i = 0; i < count; ++i) {
    const short found = states[i].revents;
    if (answered && (found == 0 || (found & POLLNVAL) != 0)) continue;
    const Descriptor& descriptor = *waiting[i]->descriptor_;
    if (!descriptor.open()) {
      TARVO_TRACE(libeventTrace, 1, "descriptor {} was closed while it was watched",
                  descriptor.number);
    } else if (answered) {
      waiting[i]->ownReport_ = true;
      event_active(&waiting[i]->readEvent_, EV_READ, 1);
    } else {
      descriptor.renew();
    }
  }
}

void ServedReads::clear() noexcept {
  for (std::size_t i = 0; i < count_; ++i) controls_[i]->served_ = false;
  count_ = 0;
  steps_ = std::numeric_limits<std::size_t>::max();
  urgency_ = std::numeric_limits<unsigned>::max();
}

}  // namespace Tarvo::Impl
