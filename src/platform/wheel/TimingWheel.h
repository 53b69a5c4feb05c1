#ifndef TARVO_SRC_PLATFORM_TIMINGWHEEL_H
#define TARVO_SRC_PLATFORM_TIMINGWHEEL_H

#include <array>
#include <cstdint>

#include "Tarvo/detail/TimeoutRecord.h"

namespace Tarvo::Impl {

/// A hierarchical timing wheel on integer ticks (Varghese and Lauck, "Hashed and Hierarchical
/// Timing Wheels", 1987). It has no clock and calls no timer: advance() tells it the time, and
/// takeExpired() returns the timers that are due.
///
/// A tick is written in base 64, one level per digit. A timer is on the level of the highest digit
/// in which its expiry differs from the present tick, in the slot with the value of that digit. So
/// every timer of one level is due before every timer of the next. Eleven levels cover all 64 bits.
/// When the wheel advances, only the slots between the old and the new digit are emptied: their
/// timers expire or move to lower levels. Bitmaps of the occupied slots skip the empty ones,
/// however far the clock jumps.
///
/// add() and remove() take constant time and allocate nothing. A timer moves down at most once per
/// level. Timers of one tick are returned in the order in which they were added.
class TimingWheel {
 public:
  using Tick = std::uint64_t;

  explicit TimingWheel(Tick now = 0) : now_(now) {}
  TimingWheel(const TimingWheel&) = delete;
  TimingWheel& operator=(const TimingWheel&) = delete;

  Tick now() const { return now_; }
  /// Sets the present tick; a tick before now() changes nothing.
  void advance(Tick now);

  /// Due at `expires`; at once when that is not later than now(). REQUIRES: in no list.
  void add(TimeoutRecord& record, Tick expires);
  /// REQUIRES: in this wheel.
  void remove(TimeoutRecord& record);

  /// Whether it is this wheel that the record is in. REQUIRES: in a wheel.
  bool holds(const TimeoutRecord& record) const { return record.wheel_ == number_; }

  /// Removes and returns one timer that is due; null when there is none.
  TimeoutRecord* takeExpired();
  bool hasExpired() const { return !expired_.empty(); }
  /// Whether the wheel holds timers that are not due yet.
  bool hasPending() const { return occupiedLevels_ != 0; }

  /// Ticks from now() to the next expiry. The result may be too small, when the timer with that
  /// expiry was removed, but never too large. REQUIRES: hasPending().
  Tick ticksToNext() const;

 private:
  static constexpr unsigned digitBits = 6;
  static constexpr unsigned slotCount = 1U << digitBits;
  static constexpr unsigned levelCount = (64 + digitBits - 1) / digitBits;

  struct Slot : TimeoutList {
    Tick earliest = ~Tick{0};  // a lower bound of the members' expiries
  };
  struct Level {
    std::uint64_t occupied = 0;  // bit i: slot i has members
    std::array<Slot, slotCount> slots;
  };

  static std::uint32_t newNumber();
  static unsigned levelOf(Tick difference);
  static unsigned digit(Tick tick, unsigned level);
  void link(TimeoutRecord& record);
  void vacate(unsigned level, unsigned slot);
  void relink(unsigned level, std::uint64_t slots);

  Tick now_;
  std::uint32_t number_ = newNumber();
  std::uint32_t occupiedLevels_ = 0;  // bit i: level i has members
  TimeoutList expired_;
  std::array<Level, levelCount> levels_;
};

}  // namespace Tarvo::Impl

#endif
