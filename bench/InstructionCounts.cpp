/// The hot paths whose instructions are counted, by instructions.py: rows of the benchmark
/// programs. Usage: InstructionCounts             tells what it was compiled with, and all paths
///        InstructionCounts PATH TIMES  runs a path, so many times, to be counted from outside

#include <fmt/format.h>
#include <sys/time.h>

#include <chrono>
#include <cstring>
#include <ctime>

#include "Leaves.h"
#include "Ring.h"
#include "Runs.h"
#include "Tarvo/Exception.h"
#include "Tarvo/Locking.h"
#include "Timers.h"
#include "Traces.h"

namespace {

/// The clock of this program goes on by a microsecond with each reading, however slow or busy the
/// machine is: quanta, timers and the digits of the date are the same in each run. The library,
/// libevent and the standard library find the two functions below first.
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

#define FOUND_FIRST extern "C" __attribute__((visibility("default")))

FOUND_FIRST int clock_gettime(clockid_t, timespec* out) noexcept {
  *out = next();
  return 0;
}

FOUND_FIRST int gettimeofday(timeval* __restrict out, void* __restrict) noexcept {
  const timespec now = next();
  *out = {now.tv_sec, now.tv_nsec / 1000};
  return 0;
}

namespace bench {

/// All runs within one quantum.
void runMember(State& state) { GroupMemberRun(state, std::chrono::seconds(1)); }

/// A round is a start and an expiry; a hundred expire together.
void startAndExpire(State& state) {
  constexpr std::size_t together = 100;
  TarvoWheel timers(together);
  RandomNumbers random;
  std::size_t started = 0;
  for (auto _ : state) {
    timers.start(started++, random.between(1, 100));
    if (started < together) continue;
    present.tv_sec += 200;
    runUntilFired(timers, together);
    started = timers.fired = 0;
  }
}

struct Path {
  const char* name;
  void (*run)(State& state);
  std::vector<std::int64_t> arguments{};
};

const Path paths[] = {
    {"run of a task by the root", RootTaskRun, {1}},
    {"run of a group's member", runMember, {1}},
    {"schedule and unschedule", ScheduleUnschedule},
    {"timer, start and stop", StartStop<TarvoWheel>, {1000}},
    {"timer, re-arm", Rearm<TarvoWheel>, {1000}},
    {"timer, start and expiry", startAndExpire},
    {"timer task, restart", Rearm<TimerTasks>, {1000}},
    {"callback control, re-arm", CallbackRearmed},
    {"callback of libevent alone, re-arm, for comparison", LibeventCallback},
    {"event of a descriptor control", TarvoFdControl, {2, 1}},
    {"event of a descriptor task", TarvoFdTask, {2, 1}},
    {"event of a descriptor task, drained", TarvoFdTaskDrained, {2, 1}},
    {"trace statement, disabled", TraceDisabled},
    {"trace statement, to /dev/null", TraceToNull},
    {"trace channel among 1,000 of its name, made and dropped", ChannelAmongAlike},
    {"lock and unlock", LockAndUnlock<Tarvo::Locking::Lock>},
    {"lock and unlock, recursive", LockAndUnlock<Tarvo::Locking::RecursiveLock>},
    {"event of the history", HistoryInsert},
    {"intern a known name", InternString, {1}},
    {"copy of an interned name", CopyConstStringRef},
    {"hash of 64 bytes", UtilHash, {64}},
    {"throw and catch over 10 frames", ThrowAndCatch<Tarvo::RuntimeException>, {10}},
    {"backtrace of 50 frames", BacktraceCapture, {50}},
    {"reading of the clock", LibraryClock},
};

}  // namespace bench

int main(int argc, char** argv) {
#ifdef __clang__
  if (argc == 1) fmt::print("clang {}\n", __clang_major__);
#else
  if (argc == 1) fmt::print("g++ {}\n", __GNUC__);
#endif
  for (const auto& path : bench::paths) {
    if (argc == 1) fmt::print("{}\n", path.name);
    if (argc != 3 || std::strcmp(path.name, argv[1]) != 0) continue;
    bench::State state(std::stoul(argv[2]), path.arguments);
    path.run(state);
    return 0;
  }
  return argc == 1 ? 0 : 2;  // 2 for a path that is unknown
}
