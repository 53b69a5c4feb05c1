#ifndef TARVO_TASKTIME_H
#define TARVO_TASKTIME_H

/// How tasks measure time.

#include <chrono>
#include <cstdint>
#include <ctime>
#include <limits>

#include "Tarvo/Export.h"

namespace Tarvo {

/// Seconds. A point in time is on the library clock, Tarvo::time().
using Time = double;

/// A count of nanoseconds.
using TaskTimeDuration = std::int64_t;

/// The duration that never ends.
inline constexpr TaskTimeDuration taskTimeNever = std::numeric_limits<TaskTimeDuration>::max();

/// The clock of runs, waits and history: nanoseconds since boot, never virtual. It is the
/// standard's steady clock, with now() inlined, which saves a call into the standard library.
struct TaskClock : std::chrono::steady_clock {
  static time_point now() noexcept {
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time_point(std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec));
  }
};

/// Converts `t` seconds to nanoseconds, rounded down and cut to the largest duration. Fails an
/// assertion when `t` is negative or NaN.
TARVO_EXPORT TaskTimeDuration time2Duration(Time t);

inline TaskTimeDuration nanoseconds(TaskClock::duration duration) {
  return std::chrono::nanoseconds(duration).count();
}

}  // namespace Tarvo

#endif
