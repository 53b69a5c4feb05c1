/// Traces, exceptions, locks and clocks beside the plainest thing that does the same.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <stdexcept>

#include "Tarvo/Exception.h"
#include "Tarvo/Locking.h"
#include "Tarvo/Platform.h"
#include "Tarvo/Trace.h"

namespace {

const auto handler = Tarvo::Platform::getDebugHandler("Bench");

void TraceDisabled(benchmark::State& state) {
  const auto* channel = handler.get();
  for (auto _ : state) {
    benchmark::DoNotOptimize(channel);
    TARVO_TRACE(const_cast<Tarvo::Platform::DebugHandler*>(channel), 7, "{} {}", 1, "two");
  }
}
BENCHMARK(TraceDisabled);

void BareLoadAndTest(benchmark::State& state) {
  std::uint32_t word = 0;
  auto* pointer = &word;
  for (auto _ : state) {
    benchmark::DoNotOptimize(pointer);
    if ((std::atomic_ref<std::uint32_t>(*pointer).load(std::memory_order_relaxed) >> 7) & 1U) {
      std::abort();
    }
  }
}
BENCHMARK(BareLoadAndTest);

void TraceToNull(benchmark::State& state) {
  setenv("TRACEFILE", "/dev/null", 1);
  Tarvo::Platform::setupTarvoDebug("Bench/1");
  for (auto _ : state) TARVO_TRACE(handler, 1, "client {} sent {} bytes", 17, 4096);
  unsetenv("TRACEFILE");
  Tarvo::Platform::setupTarvoDebug("");
}
BENCHMARK(TraceToNull);

void OneWriteToNull(benchmark::State& state) {
  const int fd = open("/dev/null", O_WRONLY);
  const char* line =
      "2026-01-01 12:00:00.1 4711 Bench 1 BenchScope::run() client 17 sent 4096 bytes\n";
  for (auto _ : state) benchmark::DoNotOptimize(write(fd, line, std::strlen(line)));
  close(fd);
}
BENCHMARK(OneWriteToNull);

template <typename Body>
[[gnu::noinline]] void atDepth(int depth, const Body& body) {
  if (depth > 0) {
    atDepth(depth - 1, body);
  } else {
    body();
  }
  asm volatile("");  // keeps every frame
}

template <typename Error>
void ThrowAndCatch(benchmark::State& state) {
  for (auto _ : state) {
    try {
      atDepth(static_cast<int>(state.range(0)), [&state] {
        if (state.range(0) > 0) throw Error("what went wrong");
      });
    } catch (const std::exception& e) {
      benchmark::DoNotOptimize(&e);
    }
  }
}
BENCHMARK(ThrowAndCatch<Tarvo::RuntimeException>)->Arg(10)->Arg(50);
BENCHMARK(ThrowAndCatch<std::runtime_error>)->Arg(10)->Arg(50);

void BacktraceCapture(benchmark::State& state) {
  atDepth(static_cast<int>(state.range(0)), [&] {
    for (auto _ : state) {
      Tarvo::Backtrace here(true);
      benchmark::DoNotOptimize(here);
    }
  });
}
BENCHMARK(BacktraceCapture)->Arg(10)->Arg(50);

template <typename Mutex>
void LockAndUnlock(benchmark::State& state) {
  Mutex mutex;
  for (auto _ : state) {
    mutex.lock();
    benchmark::ClobberMemory();
    mutex.unlock();
  }
}
BENCHMARK(LockAndUnlock<Tarvo::Locking::Lock>);
BENCHMARK(LockAndUnlock<std::mutex>);
BENCHMARK(LockAndUnlock<Tarvo::Locking::RecursiveLock>);
BENCHMARK(LockAndUnlock<std::recursive_mutex>);

void LibraryClock(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(Tarvo::time());
}
BENCHMARK(LibraryClock);

}  // namespace
