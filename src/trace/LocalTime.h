#ifndef TARVO_SRC_TRACE_LOCALTIME_H
#define TARVO_SRC_TRACE_LOCALTIME_H

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <limits>

namespace Tarvo::Impl {

/// Notices changes of the variable TZ with a few loads, by the addresses of its entry. (The
/// fingerprint of the zone is not enough: two zones may have equal ones.)
class ZoneVariable {
 public:
  /// Whether TZ may have another value than at the last look.
  bool changed() const {
    return environ != all_ ||
           (all_ != nullptr && (all_[at_] != entry_ || all_[at_ - (at_ > 0)] != before_));
  }
  void look();

 private:
  char** all_ = nullptr;
  std::size_t at_ = 0;            // of TZ, or of the end of the list
  const char* entry_ = nullptr;   // null without TZ
  const char* before_ = nullptr;  // the entry before it, which shows when the list has shrunk
};

/// The local date and time of a second as text, "2026-05-01 " and "12:00:01".
///
/// localtime_r() costs more than all the rest of a trace line. So it is called once per second to
/// get the offset from UTC; the rest is arithmetic. localtime_r() takes a lock that may stay locked
/// for ever in a child that was forked while other threads existed. There the offset of the moment
/// of the fork is used until the zone is seen to change.
class LocalTime {
 public:
  /// False when the C library cannot break the second down.
  bool secondIs(std::time_t second);

  /// Writes the date, "2026-05-01 ", and returns its end. Needs room for textSize.
  char* putDate(char* to) const {
    std::memcpy(to, date_, sizeof date_);  // a fixed size is copied without a call
    return to + dateSize_;
  }
  /// The same for the time, "12:00:01".
  char* putTime(char* to) const {
    std::memcpy(to, time_, sizeof time_);
    return to + sizeof time_;
  }
  static constexpr std::size_t textSize = 16;

 private:
  std::time_t second_ = std::numeric_limits<std::time_t>::min();  // never equal to the clock
  std::uint64_t zone_ = 0;  // the fingerprint of the zone for which the text was made
  ZoneVariable variable_;
  char date_[textSize] = {};
  std::size_t dateSize_ = 0;
  char time_[8] = {};
};

/// The hooks of fork(): before it, and in the child.
void keepOffsetForChild();
void keepOffsetInChild();

}  // namespace Tarvo::Impl

#endif
