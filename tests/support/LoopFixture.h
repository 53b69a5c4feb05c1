#ifndef TARVO_TESTS_SUPPORT_LOOPFIXTURE_H
#define TARVO_TESTS_SUPPORT_LOOPFIXTURE_H

#include "Tarvo/Allocator.h"
#include "Tarvo/LibeventControls.h"
#include "Tarvo/LibeventFactory.h"
#include "Tarvo/Loco.h"
#include "Tarvo/Platform.h"
#include "Tarvo/TimerWheel.h"
#include "support/Test.h"
#include "support/TestClock.h"

namespace testsupport {

namespace Platform = Tarvo::Platform;

constexpr double infinity = HUGE_VAL;

using RunLog = std::vector<std::string>;

/// A handler of every kind that logs its name and then does what the test wants.
struct Handler : Platform::TimeoutHandler, Platform::CallbackHandler, Platform::FdEventHandler {
  using Action = std::function<void()>;

  Handler(RunLog& runLog, std::string handlerName, Action doNext = nullptr)
      : log(runLog), name(std::move(handlerName)), action(std::move(doNext)) {}

  void timeout() override { run(name); }
  void callback() override { run(name); }
  void readFdEvent(int fd) override { run(name + " read " + std::to_string(fd)); }
  void writeFdEvent(int fd) override { run(name + " write " + std::to_string(fd)); }
  bool handleTimeoutException() override { return asked("timer"); }
  bool handleCallbackException() override { return asked("callback"); }
  bool handleFdException(int fd) override { return asked("fd " + std::to_string(fd)); }

  RunLog& log;
  std::string name;
  Action action;
  bool handles = false;
  bool throwsAgain = false;

 private:
  void run(const std::string& what) {
    log.push_back(what);
    if (const Action now = action) now();  // the action may replace itself
  }
  bool asked(const std::string& kind) {
    log.push_back(name + " " + kind + " threw");
    if (throwsAgain) throw 8;
    return handles;
  }
};

/// Leaves no control, no held lock and no virtual time behind when the test's members are gone.
struct LoopFixture : testing::Test {
  ~LoopFixture() override {
    Platform::setFastForward(false);
    EXPECT_EQ(Tarvo::allocationCount<Tarvo::LibeventTimerControl>().objects, 0);
    EXPECT_EQ(Tarvo::allocationCount<Tarvo::LibeventCallbackControl>().objects, 0);
    EXPECT_EQ(Tarvo::allocationCount<Tarvo::LibeventFdControl>().objects, 0);
    EXPECT_FALSE(Platform::loco().owns_lock());
    EXPECT_EQ(event_base_get_num_events(Tarvo::leInit(), EVENT_BASE_COUNT_ADDED), 0);
    Tarvo::leFree();
  }
  RunLog log;
};

/// Both ends of a connection; closed at the end of the scope.
struct SocketPair {
  SocketPair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0); }
  SocketPair(const SocketPair&) = delete;
  SocketPair& operator=(const SocketPair&) = delete;
  ~SocketPair() {
    close(ends[0]);
    close(ends[1]);
  }
  int ends[2];
};

/// A control of the kind, which notifies at once: a timer, one on a wheel, a callback, a
/// descriptor.
inline std::shared_ptr<void> armed(unsigned kind, Handler& handler, int fd) {
  const auto timer = kind == 1 ? Platform::getTimerControl(&handler, Tarvo::getTimerWheel())
                               : Platform::getTimerControl(&handler);
  const auto callback = Platform::getCallbackControl(&handler);
  const auto descriptor = Platform::getFdControl(&handler);
  if (kind < 2) timer->setTimeout(0);
  if (kind == 2) callback->requestCallback();
  descriptor->setWrites(true);
  if (kind == 3) descriptor->setFd(fd);
  return std::array<std::shared_ptr<void>, 4>{timer, timer, callback, descriptor}[kind];
}

/// Random numbers whose seed a failure tells.
struct SeededRandom {
  unsigned below(unsigned n) { return std::uniform_int_distribution(0U, n - 1)(engine); }
  const unsigned seed = std::random_device{}();
  testing::ScopedTrace told{__FILE__, __LINE__, seed};
  std::mt19937 engine{seed};
};

}  // namespace testsupport

#endif
