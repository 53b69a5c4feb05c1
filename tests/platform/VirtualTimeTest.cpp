#include <event2/event_struct.h>

#include "support/LoopFixture.h"

namespace {

using namespace testsupport;

int changes = 0;
void noteChange() { ++changes; }

struct VirtualTimeTest : LoopFixture {
  VirtualTimeTest() { Platform::setFastForward(true); }
};

TEST_F(VirtualTimeTest, LoopsJumpInsteadOfWaiting) {
  const TestClock clock;
  Handler hour(log, "hour");
  Handler day(log, "day");
  const auto hourTimer = Platform::getTimerControl(&hour);
  const auto dayTimer = Platform::getTimerControl(&day);
  hour.action = [&] {
    if (log.size() < 20) hourTimer->setTimeout(3600);
  };
  const double begin = Tarvo::time();
  const auto passed = [&] { return Tarvo::time() - begin; };
  hourTimer->setTimeout(3600);
  dayTimer->setTimeout(4 * 3600 + 1);
  Platform::doEventLoop(4.5 * 3600);
  EXPECT_THAT(log, ElementsAre("hour", "hour", "hour", "hour", "day"));
  EXPECT_GE(passed(), 4.5 * 3600);
  EXPECT_LT(passed(), 4.5 * 3600 + 0.01);
  EXPECT_LT(hourTimer->remainingTimeout(), 1801);

  log.clear();
  Tarvo::eventLoopFastForwardToFirstTimer(1e6);  // one jump, one pass
  EXPECT_THAT(log, ElementsAre("hour"));
  // To the fifth hour, and a tenth of a millisecond further with every jump to a timer.
  EXPECT_NEAR(passed(), 5 * 3600 + 5e-4, 6e-5);
  hourTimer->delTimeout();
  const double then = passed();
  Platform::doEventLoopInWaitfor(50.0000009);  // nothing to jump to but the limit
  EXPECT_GE(passed() - then, 50.0000009);
  Platform::doEventLoop(5);
  EXPECT_GE(passed() - then, 55.0000009);
}

TEST_F(VirtualTimeTest, ALoopInWhichItIsSwitchedOffWaitsForTheRest) {
  const TestClock clock;
  double passed = 0;
  Handler off(log, "off", [] { Platform::setFastForward(false); });
  Handler rest(log, "rest", [&] { passed = Tarvo::time(); });
  const auto offTimer = Platform::getTimerControl(&off);
  const auto restTimer = Platform::getTimerControl(&rest);
  for (const double limit : {30.0, infinity}) {
    Platform::setFastForward(true);
    const double offset = Tarvo::leVirtualTimeOffset();
    const double begin = Tarvo::time();
    offTimer->setTimeout(10);
    restTimer->setTimeout(20);
    Platform::doEventLoop(limit);
    EXPECT_NEAR(Tarvo::leVirtualTimeOffset() - offset, 10, 0.001);
    EXPECT_NEAR(passed - begin, 20, 0.01);
    EXPECT_NEAR(Tarvo::time() - begin, limit == infinity ? 20 : 30, 0.01);
  }
  EXPECT_THAT(log, ElementsAre("off", "rest", "off", "rest"));
}

TEST_F(VirtualTimeTest, AnUrgentTimerGoesBeforeWhatTheKernelReports) {
  SocketPair pair;
  Handler high(log, "high");
  const auto timer = Platform::getTimerControl(&high, Platform::eventPriorityStrictHigh);
  std::shared_ptr<Platform::FdControl> reads;
  Handler reader(log, "reader", [&] { reads->delFd(); });
  reads = Platform::getFdControl(&reader);
  reads->setFd(pair.ends[0]);
  ASSERT_EQ(write(pair.ends[1], "x", 1), 1);
  timer->setTimeout(10);
  Platform::doEventLoop();
  EXPECT_THAT(log, ElementsAre("high", testing::StartsWith("reader")));
}

TEST_F(VirtualTimeTest, EveryKindOfTimeoutIsMoved) {
  event_base* base = Tarvo::leInit();
  const double begin = Tarvo::time();
  std::vector<double> times;
  const auto note = [](evutil_socket_t, short, void* noted) {
    static_cast<std::vector<double>*>(noted)->push_back(Tarvo::time());
  };
  const timeval common = *event_base_init_common_timeout(base, std::array{timeval{700, 0}}.data());
  const timeval delays[] = {{600, 0}, common, common, {800, 500000}};
  const SocketPair pair;
  event events[4];
  for (size_t i = 0; i < 4; ++i) {
    event_assign(&events[i], base, i == 3 ? pair.ends[0] : -1, i == 3 ? EV_READ : 0, note, &times);
    event_add(&events[i], &delays[i]);
  }
  Platform::fastForwardBy(500.25);
  Platform::doEventLoop(1000);
  for (double& time : times) time -= begin;
  const double expected[] = {600, 700, 700, 800.5};
  EXPECT_THAT(times, testing::Pointwise(testing::DoubleNear(0.1), expected));
}

TEST_F(VirtualTimeTest, TheSwitchIsTheMainThreads) {
  Platform::registerFastForwardChangeNotifier(noteChange);
  Platform::registerFastForwardChangeNotifier(noteChange);
  Platform::setFastForward(true);
  Platform::fastForwardBy(1000);
  const double later = Tarvo::time();
  Platform::setFastForward(false);
  EXPECT_EQ(changes, 1);
  EXPECT_GE(Tarvo::time(), later);
  EXPECT_THAT(failureOf([] { Platform::fastForwardBy(1); }), HasSubstr("fast-forwarding disabled"));
  std::jthread([] {
    EXPECT_EQ(Tarvo::leVirtualTimeOffset(), 0);
    EXPECT_THAT(failureOf([] { Platform::setFastForward(false); }),
                HasSubstr("FastForward invoked from non-main thread"));
    Tarvo::leFree();
  });
}

TEST_F(VirtualTimeTest, WhatAThrowLeftIsServedBeforeAnyJump) {
  Handler thrower(log, "thrower", [] { throw 7; });
  Handler other(log, "other");
  const auto timer = Platform::getTimerControl(&thrower);
  const auto otherTimer = Platform::getTimerControl(&other);
  timer->setTimeout(100);
  otherTimer->setTimeout(100);
  EXPECT_THROW(Platform::doEventLoop(1000), int);
  const double thrown = Tarvo::time();
  other.action = [&] { EXPECT_LT(Tarvo::time() - thrown, 10); };
  Platform::doEventLoop(1000);
  EXPECT_EQ(log.back(), "other");
}

}  // namespace
