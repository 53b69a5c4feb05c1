#ifndef TARVO_SRC_PLATFORM_EXACTTIMES_H
#define TARVO_SRC_PLATFORM_EXACTTIMES_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Tarvo/TimerWheel.h"

namespace Tarvo {

/// The timers whose tick has come, in the order of their exact expiries, and of one expiry in the
/// order in which they were added. A sorted array: it is filled in bulk, by tick, and served from
/// the front, and both go through the memory in order.
class TimerWheel::ExactTimes {
 public:
  ExactTimes() = default;
  ExactTimes(const ExactTimes&) = delete;
  ExactTimes& operator=(const ExactTimes&) = delete;
  ~ExactTimes();

  /// Adds a timer, which has its place only after the next sort(). A failure adds nothing.
  void append(TimerWheelEvent& event);
  void sort();

  /// Whether there are none; drops the places of removed ones in front.
  bool empty();
  /// REQUIRES: not empty.
  double firstExpiry() const { return entries_[begin_].expiry; }
  TimerWheelEvent* takeFirst();

  /// Takes out any one. Fails an assertion when it is not here.
  void remove(TimerWheelEvent& event);

 private:
  struct Entry {
    bool operator<(const Entry& other) const {
      return expiry != other.expiry ? expiry < other.expiry : number < other.number;
    }
    double expiry;
    std::uint64_t number;    // of the append; also in the event, where the wheel has its tick
    TimerWheelEvent* event;  // null when it was removed
  };

  std::vector<Entry> entries_;
  std::size_t begin_ = 0;   // what is before was served
  std::size_t sorted_ = 0;  // what is behind was appended since
  std::uint64_t appended_ = 0;
};

}  // namespace Tarvo

#endif
