#ifndef TARVO_SRC_PLATFORM_LIBRARYTIME_H
#define TARVO_SRC_PLATFORM_LIBRARYTIME_H

#include <chrono>
#include <cstdint>
#include <ctime>

#include "Tarvo/LibeventFactory.h"

namespace Tarvo::Impl {

/// What Tarvo::time() is at a reading of the monotonic clock.
inline double libraryTime(const timespec& reading) {
  return static_cast<double>(reading.tv_sec) + static_cast<double>(reading.tv_nsec) / 1e9 +
         leVirtualTimeOffset();
}

inline double libraryTime(std::chrono::steady_clock::time_point reading) {
  constexpr std::int64_t second = 1'000'000'000;
  const std::int64_t count = std::chrono::nanoseconds(reading.time_since_epoch()).count();
  return libraryTime(timespec{count / second, count % second});
}

}  // namespace Tarvo::Impl

#endif
