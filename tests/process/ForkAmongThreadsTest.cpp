/// What a child finds that is forked while other threads of its parent are in the middle of things.

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <ctime>
#include <fstream>
#include <functional>
#include <latch>
#include <thread>

#include "Tarvo/Exception.h"
#include "Tarvo/Introspection.h"
#include "Tarvo/Plugin.h"
#include "Tarvo/Thread.h"
#include "Tarvo/Trace.h"
#include "foundation/AtFork.h"
#include "support/ChildProcess.h"

namespace {

using Tarvo::Impl::WholeChange;
using Tarvo::Platform::clearTarvoDebug;
using Tarvo::Platform::getDebugHandler;
using Tarvo::Platform::setupTarvoDebug;

// What waits for a lock that a thread of the parent may have held ends the child at once instead.
std::atomic<bool> othersAreLocked{false};

template <typename Function>
Function* unlocked(const char* name) {
  if (othersAreLocked) _exit(9);
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {
[[gnu::visibility("default")]] std::tm* localtime_r(const std::time_t* at, std::tm* to) noexcept {
  return unlocked<std::tm*(const std::time_t*, std::tm*)>("localtime_r")(at, to);
}
[[gnu::visibility("default")]] int unw_backtrace(void** frames, int count) {
  return unlocked<int(void**, int)>("unw_backtrace")(frames, count);
}
}

namespace {

/// Waits until the thread sleeps, or `done`. Whether it came to sleep.
bool sleeps(pid_t tid, const std::atomic<bool>& done) {
  const auto path = "/proc/self/task/" + std::to_string(tid) + "/stat";
  for (int asleep = 0; asleep < 3 && !done; std::this_thread::yield()) {
    std::string stat;
    std::getline(std::ifstream(path), stat);
    asleep = stat.find(") S ") != std::string::npos ? asleep + 1 : 0;
  }
  return !done;
}

std::atomic<bool> forking{false};

TEST(ForkAmongThreadsTest, AForkWaitsForTheChangeOfARegistry) {
  ASSERT_EQ(pthread_atfork([] { forking = true; }, nullptr, nullptr), 0);
  std::latch begun(1);
  std::latch left(1);
  std::atomic<bool> whole{false};
  std::atomic<bool> done{false};
  std::jthread changer([&, forker = Tarvo::gettid()] {
    {
      const WholeChange change;
      begun.count_down();
      while (!forking) std::this_thread::yield();
      sleeps(forker, done);
      whole = true;
    }
    left.wait();
  });
  begun.wait();
  const auto child = testsupport::runForked([&] {
    const WholeChange free;
    return whole ? 0 : 1;
  });
  done = true;
  left.count_down();
  changer.join();
  EXPECT_EQ(child.exitCode, 0);
  // Nobody is waited for where the forking thread itself is in a change, which goes on in both.
  const WholeChange own;
  EXPECT_EQ(testsupport::runForked([] {
              const WholeChange inner;
              return 0;
            }).exitCode,
            0);
}

TEST(ForkAmongThreadsTest, RegistriesChangeAsAWholeOnly) {
  struct Plugin : Tarvo::Platform::Plugin {
    const char* name() override { return "whole"; }
  };
  static Plugin plugin;
  const auto printer = [](const void*) { return Tarvo::String(); };
  std::shared_ptr<Tarvo::Platform::DebugHandler> handler;
  const std::array<std::function<void()>, 10> changes{
      [&] { handler = getDebugHandler("Whole"); },
      [&] { setupTarvoDebug("Whole/1"); },
      [&] { clearTarvoDebug("Whole/1"); },
      [&] { setupTarvoDebug("Whol*/1"); },
      [&] { clearTarvoDebug("Whol*/1"); },
      [&] { handler.reset(); },
      [&] { Tarvo::introspectionPrinterIs("Whole", printer); },
      [&] { Tarvo::introspectionPrinterIs("Whole", printer); },
      [&] { Tarvo::introspectionPrinterIs("Whole", {}); },
      [&] { Tarvo::Platform::registerPlugin(&plugin); }};
  for (std::size_t i = 0; i < changes.size(); ++i) {
    std::atomic<pid_t> tid{0};
    std::atomic<bool> done{false};
    std::jthread changer;
    const WholeChange change;
    changer = std::jthread([&] {
      tid = Tarvo::gettid();
      changes[i]();
      done = true;
    });
    while (tid == 0) std::this_thread::yield();
    EXPECT_TRUE(sleeps(tid, done)) << "change " << i;
  }
}

TEST(ForkAmongThreadsTest, AChildWaitsForNoLockOfOtherLibraries) {
  const auto handler = getDebugHandler("Among");
  handler->enabledIs(1, true);
  Tarvo::Platform::setTraceFormat("time");
  const auto zoneIs = [](const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  };
  const auto expected = [](long offset) {  // hour and minute, in the zones of the lines below
    const auto time = std::time(nullptr) + offset;
    return fmt::format("{:02}:{:02}", time / 3600 % 24, time / 60 % 60);
  };
  zoneIs("UTC");
  TARVO_TRACE(handler, 1, "the parent, in another zone");
  zoneIs("Asia/Kolkata");
  std::latch done(1);
  std::jthread other([&] { done.wait(); });
  constexpr long kolkata = 19800;
  const std::array before{expected(kolkata), expected(0)};
  const auto child = testsupport::runForked([&] {
    othersAreLocked = true;
    TARVO_TRACE(handler, 1, "child");
    const Tarvo::Backtrace here(true);
    othersAreLocked = false;  // as a change of zone shows
    zoneIs("UTC");
    TARVO_TRACE(handler, 1, "child");
    return here.size() > 3 && here.pretty().find("ProcessTest(") != Tarvo::String::npos ? 0 : 1;
  });
  const std::array after{expected(kolkata), expected(0)};
  done.count_down();
  EXPECT_EQ(child.exitCode, 0);
  const auto second = child.err.find('\n') + 1;
  EXPECT_THAT(child.err.substr(0, 5), testing::AnyOf(before[0], after[0]));
  EXPECT_THAT(child.err.substr(second, 5), testing::AnyOf(before[1], after[1]));
  unsetenv("TZ");
  tzset();
  Tarvo::Platform::setTraceFormat("date,time,tid,handle,level");
}

}  // namespace
