#include "platform/wheel/TimerWheelTrace.h"

#include "platform/wheel/ExactTimes.h"

#include <algorithm>
#include <utility>

#include "Tarvo/Loco.h"

namespace Tarvo {

TimerWheel::ExactTimes::~ExactTimes() {
  Impl::checkInDestructor([this] { TARVO_ASSERT(!skipRemoved(), "Destroyed while non-empty"); });
}

void TimerWheel::ExactTimes::append(TimerWheelEvent& event) {
  entries_.push_back({event.expirationTime_, appended_, &event});
  event.expires_ = appended_++;
}

void TimerWheel::ExactTimes::sort() {
  const auto place = [this](std::size_t index) {
    return entries_.begin() + static_cast<std::ptrdiff_t>(index);
  };
  std::sort(place(sorted_), entries_.end());
  const bool mixed =
      begin_ < sorted_ && sorted_ < entries_.size() && entries_[sorted_] < entries_[sorted_ - 1];
  if (mixed) std::inplace_merge(place(begin_), place(sorted_), entries_.end());
  // Under a steady load the array is never empty, so the entries that were taken are erased here.
  if (begin_ > entries_.size() / 2) {
    entries_.erase(entries_.begin(), place(begin_));
    begin_ = 0;
  }
  sorted_ = entries_.size();
}

bool TimerWheel::ExactTimes::skipRemoved() {
  constexpr std::size_t keptCapacity = 1 << 16;  // a larger array is freed after use
  while (begin_ < entries_.size() && entries_[begin_].event == nullptr) ++begin_;
  if (begin_ < entries_.size()) return true;
  if (entries_.capacity() > keptCapacity) {
    entries_ = {};
  } else {
    entries_.clear();
  }
  begin_ = sorted_ = 0;
  return false;
}

TimerWheelEvent* TimerWheel::ExactTimes::takeFirst() {
  constexpr std::size_t ahead = 8;  // prefetch the event that is called eight calls later
  if (begin_ + ahead < entries_.size()) {
    if (const TimerWheelEvent* later = entries_[begin_ + ahead].event) {
      __builtin_prefetch(later, 1);
      __builtin_prefetch(&later->expirationTime_, 1);
    }
  }
  return std::exchange(entries_[begin_++].event, nullptr);
}

void TimerWheel::ExactTimes::remove(TimerWheelEvent& event) {
  TARVO_ASSERT(event.state() == inTimersExpiryingSoon,
               "Removing from timersExpiryingSoon in state {}", event.state());
  const Entry wanted{event.expirationTime_, event.expires_, nullptr};
  // Entries before begin_ were removed; they may expire later than newer entries, so the search
  // must not include them.
  const auto begin = entries_.begin() + static_cast<std::ptrdiff_t>(begin_);
  const auto place = std::lower_bound(begin, entries_.end(), wanted);
  TARVO_ASSERT(place != entries_.end() && place->event == &event, "No timersAtTimeout");
  place->event = nullptr;
}

}  // namespace Tarvo
