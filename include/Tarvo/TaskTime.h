#ifndef TARVO_TASKTIME_H
#define TARVO_TASKTIME_H

/// How tasks measure time.

#include <chrono>
#include <cstdint>
#include <ctime>
#include <limits>

#include "Tarvo/Export.h"

namespace Tarvo {

/// Seconds, on the library clock Tarvo::time() when it is a moment.
using Time = double;

/// A count of nanoseconds.
using TaskTimeDuration = std::int64_t;

/// The duration that never ends.
inline constexpr TaskTimeDuration taskTimeNever = std::numeric_limits<TaskTimeDuration>::max();

/// The clock of runs, waits and history: nanoseconds since boot, never virtual. Its time points are
/// those of the standard's steady clock, read without the way through that library.
struct TaskClock : std::chrono::steady_clock {
  static time_point now() noexcept {
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time_point(std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec));
  }
};

/// Nanoseconds of `t` seconds, without the fraction; what is beyond the largest duration becomes
/// that. Fails an assertion when `t` is negative or no number.
TARVO_EXPORT TaskTimeDuration time2Duration(Time t);

inline TaskTimeDuration nanoseconds(TaskClock::duration duration) {
  return std::chrono::nanoseconds(duration).count();
}

}  // namespace Tarvo

#endif
