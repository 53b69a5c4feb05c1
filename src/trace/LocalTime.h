#ifndef TARVO_SRC_TRACE_LOCALTIME_H
#define TARVO_SRC_TRACE_LOCALTIME_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <limits>

namespace Tarvo::Impl {

/// The local date and time of a second as text, "2026-05-01 " and "12:00:01".
///
/// The C library breaks a second down under a lock that a fork can leave locked for ever in the
/// child, and at a cost above that of all the rest of a line. So it is asked for the offset from
/// UTC once per quarter of an hour, the step at which offsets change, and the rest is arithmetic.
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
  std::time_t second_ = std::numeric_limits<std::time_t>::min();  // none that has a date
  std::uint64_t zone_ = 0;  // the C library's zone at that second
  char date_[textSize] = {};
  std::size_t dateSize_ = 0;
  char time_[8] = {};
};

}  // namespace Tarvo::Impl

#endif
