#ifndef TARVO_SRC_TRACE_LOCALTIME_H
#define TARVO_SRC_TRACE_LOCALTIME_H

#include <cstddef>
#include <ctime>
#include <string_view>

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

  std::string_view date() const { return {text_, dateSize_}; }
  std::string_view time() const { return {text_ + dateSize_, size_ - dateSize_}; }

 private:
  std::time_t second_ = -1;
  long zone_ = 0;  // the C library's zone at that second
  char text_[48] = {};
  std::size_t dateSize_ = 0;
  std::size_t size_ = 0;
};

}  // namespace Tarvo::Impl

#endif
