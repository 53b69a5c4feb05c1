#include "support/LoopFixture.h"
#include "support/TestClock.h"

namespace {

using namespace testsupport;

struct EventLoopTest : LoopFixture {};

TEST_F(EventLoopTest, TimersRunOnceInTheOrderOfTheirDelays) {
  Handler later(log, "later");
  Handler sooner(log, "sooner");
  Handler never(log, "never");
  const auto laterTimer = Platform::getTimerControl(&later);
  const auto soonerTimer = Platform::getTimerControl(&sooner);
  const auto neverTimer = Platform::getTimerControl(&never);
  laterTimer->setTimeout(0.03);
  soonerTimer->setTimeout(500);
  soonerTimer->setTimeout(-3);  // replaces the first; a past expiry is due at once
  neverTimer->setTimeout(0);
  neverTimer->setTimeout(infinity);
  EXPECT_LT(laterTimer->remainingTimeout(), 1.0);
  EXPECT_LT(soonerTimer->remainingTimeout(), 1.0);  // told in steps of the coarse clock
  EXPECT_EQ(neverTimer->remainingTimeout(), infinity);
  EXPECT_EQ(Platform::doEventLoop(), 1);
  EXPECT_THAT(log, ElementsAre("sooner", "later"));
  EXPECT_EQ(laterTimer->remainingTimeout(), infinity);
}

TEST_F(EventLoopTest, DelaysOfAnySizeAreTaken) {
  Handler handler(log, "h");
  const auto timer = Platform::getTimerControl(&handler);
  timer->setTimeout(1e300);
  EXPECT_GT(timer->remainingTimeout(), 1e9);
  timer->setTimeout(77);
  EXPECT_THAT(failureOf([&] { timer->setTimeout(std::nan("")); }),
              HasSubstr("LibeventFactoryCpp:"));
  EXPECT_GT(timer->remainingTimeout(), 76);  // a refused delay loses nothing
  EXPECT_THROW(Platform::doEventLoop(std::nan("")), Tarvo::AssertException);
  timer->delTimeout();
  timer->delTimeout();
  EXPECT_EQ(Platform::doEventLoop(infinity), 1);
}

TEST_F(EventLoopTest, ATimerCountsFromTheMomentItIsSet) {
  const TestClock clock;
  Handler third(log, "third");
  const auto thirdTimer = Platform::getTimerControl(&third);
  Handler second(log, "second");
  const auto secondTimer = Platform::getTimerControl(&second);
  double due = 0;
  Handler first(log, "first", [&] {
    TestClock::advance(60);  // the work that makes the base's idea of "now" old
    secondTimer->setTimeout(0.05);
    thirdTimer->setTimeout(0);  // the base looks for what is due before it waits
    due = Tarvo::time() + 0.05;
  });
  second.action = [&] { EXPECT_NEAR(Tarvo::time(), due, 0.002); };
  const auto firstTimer = Platform::getTimerControl(&first);
  firstTimer->setTimeout(0);
  Platform::doEventLoop();
  EXPECT_THAT(log, ElementsAre("first", "third", "second"));
}

TEST_F(EventLoopTest, CallbackRequestsCollapse) {
  Handler once(log, "once");
  const auto control = Platform::getCallbackControl(&once);
  const auto cancelledControl = Platform::getCallbackControl(&once);
  control->requestCallback();
  control->requestCallback();
  cancelledControl->requestCallback();
  cancelledControl->cancelCallback();
  EXPECT_TRUE(control->pendingCallback());
  EXPECT_FALSE(cancelledControl->pendingCallback());
  Platform::doEventLoop();
  EXPECT_THAT(log, ElementsAre("once"));
  EXPECT_FALSE(control->pendingCallback());
}

TEST_F(EventLoopTest, StrictHighEventsGoFirstAndALoopWithinALoopIsRefused) {
  int inner = 5;
  Handler plain(log, "default");
  Handler high(log, "high", [&] { inner = Platform::doEventLoop(100); });
  const auto plainTimer = Platform::getTimerControl(&plain);
  const auto highTimer = Platform::getTimerControl(&high, Platform::eventPriorityStrictHigh);
  plainTimer->setTimeout(0);
  highTimer->setTimeout(0);
  testing::internal::CaptureStderr();
  Platform::doEventLoop();
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("reentrant invocation"));
  EXPECT_EQ(inner, -1);
  EXPECT_THAT(log, ElementsAre("high", "default"));
}

}  // namespace
