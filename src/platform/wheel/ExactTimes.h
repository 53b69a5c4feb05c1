#ifndef TARVO_SRC_PLATFORM_EXACTTIMES_H
#define TARVO_SRC_PLATFORM_EXACTTIMES_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Tarvo/TimerWheel.h"

namespace Tarvo {

/// The timers whose tick has come, sorted by exact expiry, and for equal expiries by the order in
/// which they were added. It is a sorted array and not a heap: timers are added in bulk, once per
/// tick, and taken from the front, and both access memory sequentially. remove() only marks an
/// entry, so that nothing is moved.
class TimerWheel::ExactTimes {
 public:
  ExactTimes() = default;
  ExactTimes(const ExactTimes&) = delete;
  ExactTimes& operator=(const ExactTimes&) = delete;
  ~ExactTimes();

  /// Adds a timer at the end; sort() must follow before the next call of another operation. Adds
  /// nothing when it throws.
  void append(TimerWheelEvent& event);
  void sort();

  /// Skips removed entries at the front. Returns whether a timer is left; if not, frees the memory
  /// of a large array.
  bool skipRemoved();
  /// REQUIRES: skipRemoved() has just returned true.
  double firstExpiry() const { return entries_[begin_].expiry; }
  TimerWheelEvent* takeFirst();

  /// Removes any timer. Fails an assertion when it is not here.
  void remove(TimerWheelEvent& event);

 private:
  struct Entry {
    bool operator<(const Entry& other) const {
      return expiry != other.expiry ? expiry < other.expiry : number < other.number;
    }
    double expiry;
    std::uint64_t number;    // counts append(); also in event->expires_, to find the entry again
    TimerWheelEvent* event;  // null when the timer was removed
  };

  std::vector<Entry> entries_;
  std::size_t begin_ = 0;       // entries before this one were taken or removed
  std::size_t sorted_ = 0;      // entries from this one on were appended since the last sort()
  std::uint64_t appended_ = 0;  // the number of the next entry
};

}  // namespace Tarvo

#endif
