#include "trace/LocalTime.h"

#include <fmt/compile.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <limits>

namespace Tarvo::Impl {

namespace {

constexpr std::time_t quarterHour = std::time_t{15} * 60;

/// Tells zones apart by what the C library shows of the present one: zones of one offset may differ
/// in their summer time, but not in their names too.
std::uint64_t presentZone() {
  constexpr std::uint64_t odd = 0x9e3779b97f4a7c15;  // spreads the bits
  std::uint64_t zone = static_cast<std::uint64_t>(::timezone);
  zone = zone * odd + static_cast<std::uint64_t>(::daylight);
  zone = zone * odd + reinterpret_cast<std::uintptr_t>(::tzname[0]);
  return zone * odd + reinterpret_cast<std::uintptr_t>(::tzname[1]);
}

/// The offset of one quarter of an hour, shared by all threads. The number of the quarter since the
/// epoch and the offset are one word, so that nobody pairs them wrongly.
class SharedOffset {
 public:
  bool find(std::int64_t quarter, std::uint64_t zone, long& offset) const {
    const std::int64_t entry = entry_.load(std::memory_order_acquire);
    if (entry >> offsetBits != quarter || zone_.load(std::memory_order_relaxed) != zone) {
      return false;
    }
    offset = static_cast<long>(entry & (2 * offsetLimit - 1)) - offsetLimit;
    return true;
  }
  void keep(std::int64_t quarter, std::uint64_t zone, long offset) {
    constexpr std::int64_t quarterLimit = std::int64_t{1} << (62 - offsetBits);
    if (std::abs(quarter) >= quarterLimit || std::abs(offset) >= offsetLimit) return;
    zone_.store(zone, std::memory_order_relaxed);
    entry_.store((quarter << offsetBits) | (offset + offsetLimit), std::memory_order_release);
  }

 private:
  static constexpr unsigned offsetBits = 20;
  static constexpr long offsetLimit = 1L << (offsetBits - 1);

  std::atomic<std::int64_t> entry_{std::numeric_limits<std::int64_t>::min()};
  std::atomic<std::uint64_t> zone_{0};
};
SharedOffset shared;

/// Seconds that the local time is ahead of the count of seconds, leap seconds included where the
/// zone has them.
bool offsetAt(std::time_t second, std::uint64_t zone, long& offset) {
  const std::int64_t quarter = second / quarterHour;
  if (shared.find(quarter, zone, offset)) return true;
  std::tm local;
  if (localtime_r(&second, &local) == nullptr) return false;
  using namespace std::chrono;
  const int yearShown = local.tm_year + 1900;
  if (yearShown < int{year::min()} || yearShown > int{year::max()}) return false;
  const sys_days day{year(yearShown) / (local.tm_mon + 1) / local.tm_mday};
  const sys_seconds shown =
      day + hours(local.tm_hour) + minutes(local.tm_min) + seconds(local.tm_sec);
  offset = static_cast<long>(shown.time_since_epoch().count() - second);
  shared.keep(quarter, zone, offset);
  return true;
}

}  // namespace

bool LocalTime::secondIs(std::time_t second) {
  const std::uint64_t zone = presentZone();
  if (second == second_ && zone == zone_) return true;
  long offset = 0;
  if (!offsetAt(second, zone, offset)) return false;
  using namespace std::chrono;
  const sys_seconds local{seconds(second + offset)};
  const auto day = floor<days>(local);
  const year_month_day date{day};
  const hh_mm_ss time{local - day};
  const char* end = fmt::format_to(date_, FMT_COMPILE("{:04}-{:02}-{:02} "), int{date.year()},
                                   unsigned{date.month()}, unsigned{date.day()});
  dateSize_ = static_cast<std::size_t>(end - date_);
  fmt::format_to(time_, FMT_COMPILE("{:02}:{:02}:{:02}"), time.hours().count(),
                 time.minutes().count(), time.seconds().count());
  second_ = second;
  zone_ = zone;
  return true;
}

}  // namespace Tarvo::Impl
