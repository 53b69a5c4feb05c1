#include "platform/wheel/TimingWheel.h"

#include <algorithm>
#include <atomic>
#include <bit>

namespace Tarvo::Impl {

std::uint32_t TimingWheel::newNumber() {
  static std::atomic<std::uint32_t> wheels = 0;
  return ++wheels;
}

unsigned TimingWheel::levelOf(Tick difference) {
  return (static_cast<unsigned>(std::bit_width(difference)) - 1) / digitBits;
}

unsigned TimingWheel::digit(Tick tick, unsigned level) {
  return static_cast<unsigned>(tick >> (level * digitBits)) % slotCount;
}

void TimingWheel::add(TimeoutRecord& record, Tick expires) {
  record.expires_ = expires;
  record.wheel_ = number_;
  link(record);
}

void TimingWheel::link(TimeoutRecord& record) {
  if (record.expires_ <= now_) return expired_.append(record);
  const unsigned level = levelOf(record.expires_ ^ now_);
  const unsigned at = digit(record.expires_, level);
  Level& home = levels_[level];
  Slot& slot = home.slots[at];
  slot.append(record);
  slot.earliest = std::min(slot.earliest, record.expires_);
  home.occupied |= std::uint64_t{1} << at;
  occupiedLevels_ |= 1U << level;
}

void TimingWheel::remove(TimeoutRecord& record) {
  TimeoutList::remove(record);
  const bool last = record.next_ == record.previous_;
  if (!last || record.expires_ <= now_) return;  // the slot has others, or it was an expired timer
  // Its slot follows from its expiry: the present has not moved past a higher digit since.
  const unsigned level = levelOf(record.expires_ ^ now_);
  vacate(level, digit(record.expires_, level));
}

void TimingWheel::vacate(unsigned level, unsigned slot) {
  Level& home = levels_[level];
  home.slots[slot].earliest = ~Tick{0};
  home.occupied &= ~(std::uint64_t{1} << slot);
  if (home.occupied == 0) occupiedLevels_ &= ~(1U << level);
}

void TimingWheel::relink(unsigned level, std::uint64_t slots) {
  for (std::uint64_t rest = levels_[level].occupied & slots; rest != 0; rest &= rest - 1) {
    const unsigned slot = static_cast<unsigned>(std::countr_zero(rest));
    while (TimeoutRecord* record = levels_[level].slots[slot].first()) {
      __builtin_prefetch(record->next_, 1);
      TimeoutList::remove(*record);
      link(*record);
    }
    vacate(level, slot);
  }
}

void TimingWheel::advance(Tick now) {
  if (now <= now_) return;
  const unsigned top = levelOf(now ^ now_);
  const std::uint64_t upToNew = (std::uint64_t{2} << digit(now, top)) - 1;
  const std::uint64_t upToOld = (std::uint64_t{2} << digit(now_, top)) - 1;
  const std::uint32_t lowerLevels = occupiedLevels_ & ((1U << top) - 1);
  now_ = now;
  // A relinked timer either expires or moves to a lower level. Lower levels are emptied first, so
  // none lands in a slot that is still to be emptied.
  for (std::uint32_t below = lowerLevels; below != 0; below &= below - 1) {
    relink(static_cast<unsigned>(std::countr_zero(below)), ~std::uint64_t{0});
  }
  relink(top, upToNew & ~upToOld);
}

TimeoutRecord* TimingWheel::takeExpired() {
  TimeoutRecord* record = expired_.first();
  if (record != nullptr) {
    __builtin_prefetch(record->next_, 1);
    TimeoutList::remove(*record);
  }
  return record;
}

TimingWheel::Tick TimingWheel::ticksToNext() const {
  const Level& first = levels_[static_cast<unsigned>(std::countr_zero(occupiedLevels_))];
  const unsigned slot = static_cast<unsigned>(std::countr_zero(first.occupied));
  return first.slots[slot].earliest - now_;
}

}  // namespace Tarvo::Impl
