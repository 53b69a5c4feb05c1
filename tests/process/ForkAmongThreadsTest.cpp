/// What a child finds that is forked while other threads of its parent are in the middle of things.

#include "Tarvo/Introspection.h"
#include "Tarvo/Plugin.h"
#include "Tarvo/Thread.h"
#include "Tarvo/Trace.h"
#include "Tarvo/Util.h"
#include "foundation/AtFork.h"
#include "support/Test.h"

namespace {

using namespace testsupport;
using Tarvo::Impl::WholeChange;

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
  for (int asleep = 0; asleep < 3 && !done; std::this_thread::yield())
    asleep = Tarvo::Util::fileRead(path).find(") S ") != String::npos ? asleep + 1 : 0;
  return !done;
}

TEST(ForkAmongThreadsTest, AForkWaitsForTheChangeOfARegistry) {
  std::atomic<bool> begun{false}, whole{false}, done{false};
  std::jthread changer([&, forker = Tarvo::gettid()] {
    {
      const WholeChange change;
      begun = true;
      sleeps(forker, done);
      whole = true;
    }
    // A child in which it has just ended counts as one that has lost a thread.
    while (!done) std::this_thread::yield();
  });
  while (!begun) std::this_thread::yield();
  const auto free = [&] { return WholeChange(), whole ? 0 : 1; };
  EXPECT_EQ(runForked(free).exitCode, 0);
  done = true;
  changer.join();
  // Nobody is waited for where the forking thread itself is in a change, which goes on in both.
  const WholeChange own;
  EXPECT_EQ(runForked(free).exitCode, 0);
}

TEST(ForkAmongThreadsTest, RegistriesChangeAsAWholeOnly) {
  static struct : Tarvo::Platform::Plugin {
    const char* name() override { return "whole"; }
  } plugin;
  std::shared_ptr<Tarvo::Platform::DebugHandler> handler;
  const std::function<void()> changes[]{
      [&] { handler = getDebugHandler("Whole"); },
      [] { Tarvo::Platform::setupTarvoDebug("Whole/1"); },
      [] { Tarvo::Platform::clearTarvoDebug("Whole/1"); },
      [&] { handler.reset(); },
      [] { Tarvo::introspectionPrinterIs("Whole", [](auto) { return String(); }); },
      [] { Tarvo::Platform::registerPlugin(&plugin); }};
  for (const auto& change : changes) {
    std::atomic<pid_t> tid{0};
    std::atomic<bool> done{false};
    std::jthread changer;
    const WholeChange whole;
    changer = std::jthread([&] {
      tid = Tarvo::gettid();
      change();
      done = true;
    });
    while (tid == 0) std::this_thread::yield();
    EXPECT_TRUE(sleeps(tid, done)) << "change " << &change - changes;
  }
}

TEST(ForkAmongThreadsTest, AChildWaitsForNoLockOfOtherLibraries) {
  const auto handler = getDebugHandler("Among");
  handler->enabledIs(1, true);
  const auto traceIn = [&](const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
    TARVO_TRACE(handler, 1, "in {}", zone);
  };
  const auto zoned = [](long offset) {  // hour and minute
    const auto time = std::time(nullptr) + offset;
    return fmt::format("{:02}:{:02}", time / 3600 % 24, time / 60 % 60);
  };
  std::latch done(1);
  Tarvo::Platform::setTraceFormat("time");
  traceIn("UTC");
  setenv("TZ", "Asia/Kolkata", 1);
  tzset();
  std::jthread other([&] { done.wait(); });
  String before;
  ChildResult child;
  do {
    before = zoned(19800);
    child = runForked([&] {
      othersAreLocked = true;
      TARVO_TRACE(handler, 1, "as the last known offset has it");
      const Tarvo::Backtrace here(true);
      othersAreLocked = false;  // as a change of zone shows
      traceIn("UTC");
      return here.size() > 3 && here.pretty().find("ProcessTest(") != String::npos ? 0 : 1;
    });
  } while (before != zoned(19800));  // until all saw one minute
  done.count_down();
  EXPECT_EQ(child.exitCode, 0);
  EXPECT_EQ(child.err.substr(0, 5), before);
  EXPECT_EQ(child.err.substr(child.err.find('\n') + 1, 5), zoned(0));
}

}  // namespace
