#include "Tarvo/TimerWheel.h"

#include "support/LoopFixture.h"

namespace {

using namespace testsupport;

/// Logs, checks that it is not early, and does what the test wants.
struct Event : Tarvo::TimerWheelEvent {
  Event(RunLog& runLog, std::string eventName, std::function<void()> doNext = nullptr)
      : log(runLog), name(std::move(eventName)), action(std::move(doNext)) {}
  void timeout() override {
    EXPECT_GE(Tarvo::time(), due) << name;
    EXPECT_EQ(state(), Tarvo::notLinked);
    log.push_back(name);
    if (const auto now = action) now();
  }
  void start(const std::shared_ptr<Tarvo::TimerWheel>& wheel, double delay) {
    setTimeout(wheel, delay);
    due = expirationTime();
  }
  RunLog& log;
  std::string name;
  std::function<void()> action;
  double due = 0;
};

struct TimerWheelTest : LoopFixture {
  TimerWheelTest() { Platform::setFastForward(true); }
  std::shared_ptr<Tarvo::TimerWheel> wheel =
      Tarvo::getTimerWheelForTaskScheduler(Platform::eventPriorityDefault);
  Event a{log, "a"};
  Event b{log, "b"};
  Event c{log, "c"};
};

TEST_F(TimerWheelTest, ATimerOfTheRunningTickIsNotLate) {
  // The first waits among the exact times when the second is started in front of it.
  const double now = Tarvo::time();
  Platform::fastForwardBy(std::ceil(now * 100) / 100 + 0.001 - now);
  a.start(wheel, 0.008);
  Platform::doEventLoopInWaitfor(0.0);
  b.start(wheel, 0.002);
  timeval delay;
  ASSERT_TRUE(Tarvo::fastForwardDelayToFirstTimer(&delay));
  EXPECT_LE(delay.tv_usec, 2200);
  const auto other = Tarvo::getTimerWheelForTaskScheduler(Platform::eventPriorityDefault);
  a.start(other, 0.009);  // it leaves the exact times of its wheel
  Platform::doEventLoop(1);
  EXPECT_THAT(log, testing::UnorderedElementsAre("a", "b"));
}

TEST_F(TimerWheelTest, DelaysOfAnySizeAreTaken) {
  a.start(wheel, 1e300);
  b.start(wheel, -5);
  b.due = 0;
  EXPECT_THAT(failureOf([&] { a.setTimeout(wheel, std::nan("")); }), HasSubstr("TimerWheelCpp:"));
  EXPECT_GT(a.remainingTimeout(), 0);  // a refused delay loses nothing
  Platform::doEventLoop(1);
  EXPECT_THAT(log, ElementsAre("b"));
  a.setTimeout(wheel, infinity);
  EXPECT_EQ(a.state(), Tarvo::notLinked);
  a.start(wheel, 1);
  EXPECT_THAT(failureOf([&] { a.stateIs(Tarvo::inTimersExpiryingSoon); }),
              HasSubstr("inTimerWheel -> inTimersExpiryingSoon must go via notLinked"));
  wheel.reset();
  EXPECT_EQ(a.state(), Tarvo::notLinked) << "left by a wheel that is gone";
}

TEST_F(TimerWheelTest, ATimerThatIsMovedStaysExactInRealTime) {
  Platform::setFastForward(false);  // with it, nothing is left in an early slot
  const TestClock clock;
  TestClock::advance(0.008);
  a.start(wheel, 0.001);
  a.start(wheel, 0.03);
  b.start(wheel, 90000);
  b.start(wheel, 0.02);
  c.start(wheel, 0.0045);
  const double begin = Tarvo::time();
  std::vector<double> late;
  for (Event* event : {&a, &b, &c}) {
    event->action = [&late, event] { late.push_back(Tarvo::time() - event->due); };
  }
  Platform::doEventLoop(1);
  EXPECT_THAT(log, ElementsAre("c", "b", "a"));
  // Handed out with the tick that is running, not when the next has come.
  EXPECT_THAT(late, testing::Each(testing::Lt(0.002)));
  a.start(wheel, 0.001);
  a.start(wheel, 1000);
  a.delTimeout(wheel);
  Platform::doEventLoop(0.02);
  EXPECT_EQ(log.size(), 3U);
  EXPECT_NEAR(Tarvo::time() - begin, 1.02, 0.003);
}

TEST_F(TimerWheelTest, ACallbackMayDropTheWheel) {
  for (const bool throws : {false, true}) {
    wheel = Tarvo::getTimerWheelForTaskScheduler(Platform::eventPriorityDefault);
    const std::weak_ptr<Tarvo::TimerWheel> watch = wheel;
    a.action = [&] {
      wheel.reset();
      if (throws) throw 7;
    };
    a.start(wheel, 0.5);
    if (throws) {
      EXPECT_THROW(Platform::doEventLoop(1), int);
    } else {
      Platform::doEventLoop(1);
    }
    EXPECT_TRUE(watch.expired());
  }
}

TEST_F(TimerWheelTest, DestroyingARunningEventEndsTheProcess) {
  EXPECT_DEATH(Event(log, "event").start(wheel, 1), "destroyed while inTimerWheel");
}

}  // namespace
