#ifndef TARVO_SRC_PLATFORM_EVENTTIME_H
#define TARVO_SRC_PLATFORM_EVENTTIME_H

#include <fmt/format.h>
#include <sys/time.h>

namespace Tarvo::Impl {

/// Longer delays are cut to this, some thirty thousand years. It is far enough from the ends of the
/// types that sums stay exact.
constexpr double longestDelay = 1e12;

/// Seconds as whole seconds and microseconds, both truncated toward zero. Huge values saturate; NaN
/// fails an assertion.
timeval secondsToTimeval(double seconds);

/// The same for a delay: a negative one is due at once.
inline timeval delayToTimeval(double seconds) {
  if (seconds <= 0) return {0, 0};
  return secondsToTimeval(seconds);
}

/// The same, rounded up to whole microseconds: a limit must not end early.
inline timeval limitToTimeval(double seconds) {
  timeval limit = delayToTimeval(seconds);
  if (seconds > static_cast<double>(limit.tv_sec) + static_cast<double>(limit.tv_usec) / 1e6 &&
      seconds < longestDelay && ++limit.tv_usec == 1000000) {
    limit = {limit.tv_sec + 1, 0};
  }
  return limit;
}

inline bool isEarlier(const timeval& a, const timeval& b) {
  return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_usec < b.tv_usec;
}

inline double toSeconds(const timeval& tv) {
  return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6;
}

/// a + b, with 0 <= tv_usec < 1000000.
inline timeval sum(const timeval& a, const timeval& b) {
  timeval s{a.tv_sec + b.tv_sec, a.tv_usec + b.tv_usec};
  for (; s.tv_usec < 0; s.tv_usec += 1000000) --s.tv_sec;
  for (; s.tv_usec >= 1000000; s.tv_usec -= 1000000) ++s.tv_sec;
  return s;
}

/// a - b, borrowing a second where the microseconds need it.
inline timeval difference(const timeval& a, const timeval& b) {
  timeval d{a.tv_sec - b.tv_sec, a.tv_usec - b.tv_usec};
  if (d.tv_usec < 0) {
    d.tv_sec -= 1;
    d.tv_usec += 1000000;
  }
  return d;
}

}  // namespace Tarvo::Impl

template <>
struct fmt::formatter<timeval> {
  constexpr auto parse(fmt::format_parse_context& context) { return context.begin(); }
  auto format(const timeval& tv, fmt::format_context& context) const {
    return fmt::format_to(context.out(), "{}.{:06}", tv.tv_sec, tv.tv_usec);
  }
};

#endif
