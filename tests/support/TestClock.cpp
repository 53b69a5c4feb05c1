/// The C library's functions that tell and pass the time, in front of which these stand for the
/// whole test program.

#include "support/TestClock.h"

#include <dlfcn.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <ctime>

namespace {

constexpr std::int64_t second = 1'000'000'000;

thread_local bool stopped = false;
thread_local std::int64_t ahead = 0;  // of the real clocks, in nanoseconds
thread_local std::int64_t stoppedAt = 0;
thread_local std::int64_t lookTakes = 0;

std::int64_t realTime(clockid_t clock) {
  timespec now;
  syscall(SYS_clock_gettime, clock, &now);
  return now.tv_sec * second + now.tv_nsec;
}

bool isMovable(clockid_t clock) {
  return clock == CLOCK_MONOTONIC || clock == CLOCK_MONOTONIC_COARSE || clock == CLOCK_REALTIME ||
         clock == CLOCK_REALTIME_COARSE || clock == CLOCK_BOOTTIME;
}

std::int64_t timeOf(clockid_t clock) {
  if (!isMovable(clock)) return realTime(clock);
  if (!stopped) return realTime(clock) + ahead;
  constexpr std::int64_t coarseStep = 4'000'000;
  if (clock == CLOCK_MONOTONIC_COARSE && lookTakes != 0) return stoppedAt - stoppedAt % coarseStep;
  stoppedAt += lookTakes;
  static const std::int64_t wall = realTime(CLOCK_REALTIME) - realTime(CLOCK_MONOTONIC);
  const bool isWall = clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE;
  return stoppedAt + (isWall ? wall : 0);
}

}  // namespace

extern "C" {

[[gnu::visibility("default")]] int clock_gettime(clockid_t clock, timespec* now) noexcept {
  if (!stopped && ahead == 0) return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
  const std::int64_t time = timeOf(clock);
  *now = {time / second, time % second};
  return 0;
}

[[gnu::visibility("default")]] int gettimeofday(timeval* now, void*) noexcept {
  const std::int64_t time = timeOf(CLOCK_REALTIME);
  *now = {time / second, time % second / 1000};
  return 0;
}

[[gnu::visibility("default")]] int epoll_wait(int epoll, epoll_event* events, int most,
                                              int milliseconds) {
  static const auto wait = reinterpret_cast<decltype(&epoll_wait)>(dlsym(RTLD_NEXT, "epoll_wait"));
  const auto beforeWait = testsupport::TestClock::beforeWait;
  if (!stopped || (milliseconds < 0 && beforeWait == nullptr))
    return wait(epoll, events, most, milliseconds);
  const int ready = wait(epoll, events, most, 0);
  stoppedAt += second / 1'000'000;
  if (ready != 0 || milliseconds == 0) return ready;
  if (beforeWait != nullptr) beforeWait(milliseconds / 1e3);
  if (milliseconds > 0) stoppedAt += milliseconds * (second / 1000);
  return 0;
}

}  // extern "C"

namespace testsupport {

TestClock::TestClock(long perLook) {
  lookTakes = perLook;
  stoppedAt = (timeOf(CLOCK_MONOTONIC) / second + 1) * second;
  stopped = true;
}

TestClock::~TestClock() {
  stopped = false;
  ahead = stoppedAt - realTime(CLOCK_MONOTONIC);
}

void TestClock::advance(double seconds) { stoppedAt += std::llround(seconds * 1e9); }

}  // namespace testsupport
