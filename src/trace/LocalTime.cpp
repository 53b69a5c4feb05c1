#include "trace/LocalTime.h"

#include <fmt/compile.h>

#include <atomic>
#include <chrono>
#include <cstdint>

namespace Tarvo::Impl {

namespace {

constexpr std::time_t quarterHour = std::time_t{15} * 60;

/// The offset of one quarter of an hour, shared by all threads: the number of the quarter since the
/// epoch, the C library's zone at that time, and the offset.
struct SharedOffset {
  std::atomic<std::int64_t> quarter{-1};
  std::atomic<long> zone{0};
  std::atomic<long> offset{0};
};
SharedOffset shared;

/// Seconds east of UTC at that second. The three words are not read as one: a reader that mixes two
/// writers sees offsets of neighbouring quarters, of which both are right within one line.
bool offsetAt(std::time_t second, long& offset) {
  const std::int64_t quarter = second / quarterHour;
  if (shared.quarter.load(std::memory_order_acquire) == quarter &&
      shared.zone.load(std::memory_order_relaxed) == ::timezone) {
    offset = shared.offset.load(std::memory_order_relaxed);
    return true;
  }
  std::tm local;
  if (localtime_r(&second, &local) == nullptr) return false;
  offset = local.tm_gmtoff;
  shared.offset.store(offset, std::memory_order_relaxed);
  shared.zone.store(::timezone, std::memory_order_relaxed);
  shared.quarter.store(quarter, std::memory_order_release);
  return true;
}

}  // namespace

bool LocalTime::secondIs(std::time_t second) {
  if (second == second_ && zone_ == ::timezone) return true;
  long offset = 0;
  if (!offsetAt(second, offset)) return false;
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
  zone_ = ::timezone;
  return true;
}

}  // namespace Tarvo::Impl
