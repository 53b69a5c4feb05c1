#include "trace/LocalTime.h"

#include <fmt/compile.h>
#include <sys/single_threaded.h>

#include <atomic>
#include <chrono>

#include "foundation/AtFork.h"

namespace Tarvo::Impl {

namespace {

/// A fingerprint of the C library's current zone, to notice tzset(). Two zones with equal offset,
/// DST flag and names are taken for the same.
std::uint64_t shownZone() {
  constexpr std::uint64_t odd = 0x9e3779b97f4a7c15;  // spreads the bits
  std::uint64_t zone = static_cast<std::uint64_t>(::timezone);
  zone = zone * odd + static_cast<std::uint64_t>(::daylight);
  zone = zone * odd + reinterpret_cast<std::uintptr_t>(::tzname[0]);
  return zone * odd + reinterpret_cast<std::uintptr_t>(::tzname[1]);
}

std::atomic<long> lastOffset{0};
std::atomic<std::uint64_t> zoneAtFork{0};
thread_local bool looking = false;  // for a trace line from a signal handler during offsetAt()

/// Whether localtime_r() might block for ever on the C library's lock, which a thread of the parent
/// may have held at the fork. A changed fingerprint shows that somebody has taken and released that
/// lock in the child, so it is usable.
bool mayHang() {
  return looking ||
         (forkedAmongThreads() && shownZone() == zoneAtFork.load(std::memory_order_relaxed));
}

/// Finds the offset of local time from UTC, in seconds (with leap seconds, if the zone has them).
bool offsetAt(std::time_t second, bool zoneSet, long& offset) {
  if (mayHang()) {
    offset = lastOffset.load(std::memory_order_relaxed);
    return true;
  }
  looking = true;
  if (zoneSet) tzset();
  std::tm local;
  const bool found = localtime_r(&second, &local) != nullptr;
  looking = false;
  if (!found) return false;
  using namespace std::chrono;
  const int yearShown = local.tm_year + 1900;
  if (yearShown < int{year::min()} || yearShown > int{year::max()}) return false;
  const sys_days day{year(yearShown) / (local.tm_mon + 1) / local.tm_mday};
  const sys_seconds shown =
      day + hours(local.tm_hour) + minutes(local.tm_min) + seconds(local.tm_sec);
  offset = static_cast<long>(shown.time_since_epoch().count() - second);
  lastOffset.store(offset, std::memory_order_relaxed);
  return true;
}

}  // namespace

void keepOffsetForChild() {
  if (__libc_single_threaded != 0) return;  // then the child may call localtime_r() itself
  long offset = 0;
  offsetAt(std::time(nullptr), false, offset);
}

void keepOffsetInChild() { zoneAtFork.store(shownZone(), std::memory_order_relaxed); }

void ZoneVariable::look() {
  all_ = environ;
  at_ = 0;
  if (all_ == nullptr) return;
  while (all_[at_] != nullptr && std::strncmp(all_[at_], "TZ=", 3) != 0) ++at_;
  entry_ = all_[at_];
  before_ = all_[at_ - (at_ > 0)];
}

bool LocalTime::secondIs(std::time_t second) {
  const bool zoneSet = variable_.changed();
  if (second == second_ && shownZone() == zone_ && !zoneSet) return true;
  if (zoneSet) variable_.look();
  long offset = 0;
  if (!offsetAt(second, zoneSet, offset)) return false;
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
  zone_ = shownZone();  // again, as tzset() in offsetAt() may have changed it
  return true;
}

}  // namespace Tarvo::Impl
