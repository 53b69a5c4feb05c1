/// The clock of a program whose instructions are counted. It goes on by a microsecond with each
/// reading, however slow or busy the machine is: quanta, timers and the digits of the date are the
/// same in each run. The library, libevent and the standard library find these functions first.

#include <sys/time.h>

#include <ctime>

#include "InstructionCountsClock.h"

#define FOUND_FIRST extern "C" __attribute__((visibility("default")))

namespace {

timespec present{1'700'000'000, 0};

timespec next() {
  present.tv_nsec += 1000;
  if (present.tv_nsec >= 1'000'000'000) {
    present.tv_nsec -= 1'000'000'000;
    ++present.tv_sec;
  }
  return present;
}

}  // namespace

namespace counts {
void passSeconds(long seconds) { present.tv_sec += seconds; }
}  // namespace counts

FOUND_FIRST int clock_gettime(clockid_t, timespec* out) noexcept {
  *out = next();
  return 0;
}

FOUND_FIRST int gettimeofday(timeval* __restrict out, void* __restrict) noexcept {
  const timespec now = next();
  *out = {now.tv_sec, now.tv_nsec / 1000};
  return 0;
}
