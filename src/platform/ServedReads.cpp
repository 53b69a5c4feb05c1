#include "platform/ServedReads.h"

#include <event2/event.h>
#include <poll.h>

#include <algorithm>

#include "platform/DeferredFdControl.h"
#include "platform/LibeventControls.h"

namespace Tarvo::Impl {

namespace {

thread_local constinit ServedReads threadReads;

}  // namespace

ServedReads& servedReads() { return threadReads; }

void ServedReads::add(LibeventFdControl& control, std::size_t steps) noexcept {
  if (!control.served_) {
    if (count_ == controls_.size()) ask();
    steps_ = count_ == 0 ? steps : std::min(steps_, steps);
    controls_[count_++] = &control;
    control.served_ = true;
  } else {
    steps_ = std::min(steps_, steps);
  }
  if (steps_ == 0) ask();
}

void ServedReads::remove(LibeventFdControl& control) noexcept {
  if (!control.served_) return;
  control.served_ = false;
  *std::find(controls_.begin(), controls_.begin() + count_, &control) = controls_[count_ - 1];
  --count_;
}

void ServedReads::step(bool last) noexcept {
  if (any() && (--steps_ == 0 || last)) ask();
}

void ServedReads::ask() noexcept {
  std::array<pollfd, std::tuple_size_v<decltype(controls_)>> states;
  for (std::size_t i = 0; i < count_; ++i) states[i] = {controls_[i]->fd_, POLLIN, 0};
  if (poll(states.data(), count_, 0) > 0) {
    for (std::size_t i = 0; i < count_; ++i) {
      const short found = states[i].revents;
      if (found != 0 && (found & POLLNVAL) == 0) {
        event_active(&controls_[i]->readEvent_, EV_READ, 1);
      }
    }
  }
  clear();
}

void ServedReads::clear() noexcept {
  for (std::size_t i = 0; i < count_; ++i) controls_[i]->served_ = false;
  count_ = 0;
}

}  // namespace Tarvo::Impl

namespace Tarvo {

void Impl::readServed(Platform::FdControl& control, std::size_t steps) noexcept {
  static_cast<LibeventFdControl&>(control).readServed(steps);
}

bool Impl::anyReadsServed() noexcept { return threadReads.any(); }

void Impl::servedReadsStep(bool last) noexcept { servedReads().step(last); }

}  // namespace Tarvo
