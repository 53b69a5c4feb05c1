#include <gmock/gmock-matchers.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "Tarvo/Debug.h"
#include "platform/EventTime.h"
#include "support/Failure.h"
#include "support/LoopFixture.h"

namespace {

using namespace testsupport;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr double infinity = std::numeric_limits<double>::infinity();

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
  EXPECT_GT(laterTimer->remainingTimeout(), 0.0);
  EXPECT_LE(laterTimer->remainingTimeout(), 0.04);
  EXPECT_EQ(soonerTimer->remainingTimeout(), 0.0);
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

  const auto tv = Tarvo::Impl::delayToTimeval(2.9999999);
  EXPECT_EQ(std::make_pair(tv.tv_sec, tv.tv_usec), std::make_pair(time_t{2}, suseconds_t{999999}));
}

TEST_F(EventLoopTest, ATimerCountsFromTheMomentItIsSet) {
  Handler second(log, "second");
  const auto secondTimer = Platform::getTimerControl(&second);
  double due = 0;
  Handler first(log, "first", [&] {
    usleep(60000);  // the work that makes the base's idea of "now" old
    secondTimer->setTimeout(0.05);
    due = Tarvo::time() + 0.05;
  });
  second.action = [&] { EXPECT_GE(Tarvo::time(), due - 0.011); };  // the coarse clock's steps
  const auto firstTimer = Platform::getTimerControl(&first);
  firstTimer->setTimeout(0);
  Platform::doEventLoop();
  EXPECT_THAT(log, ElementsAre("first", "second"));
}

TEST_F(EventLoopTest, CallbackRequestsCollapse) {
  Handler once(log, "once");
  Handler cancelled(log, "cancelled");
  const auto control = Platform::getCallbackControl(&once);
  const auto cancelledControl = Platform::getCallbackControl(&cancelled);
  EXPECT_FALSE(control->pendingCallback());
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

TEST_F(EventLoopTest, StrictHighEventsGoFirst) {
  Handler plain(log, "default");
  Handler high(log, "high");
  const auto plainTimer = Platform::getTimerControl(&plain);
  const auto highTimer = Platform::getTimerControl(&high, Platform::eventPriorityStrictHigh);
  plainTimer->setTimeout(0);
  highTimer->setTimeout(0);
  Platform::doEventLoop();
  EXPECT_THAT(log, ElementsAre("high", "default"));

  log.clear();
  highTimer->setTimeout(0);
  EXPECT_EQ(Platform::doEventLoop(0), 0);  // even the end of the loop comes after it
  EXPECT_THAT(log, ElementsAre("high"));
}

TEST_F(EventLoopTest, ABoundedLoopEndsInTime) {
  EXPECT_EQ(Platform::doEventLoop(), 1);  // nothing to wait for
  const double begin = Tarvo::time();
  EXPECT_EQ(Platform::doEventLoop(0.05), 0);
  EXPECT_GE(Tarvo::time() - begin, 0.04);
  EXPECT_EQ(Platform::doEventLoop(-1), 0);
}

TEST_F(EventLoopTest, ALoopWithinALoopIsRefused) {
  int inner = 5;
  Handler outer(log, "outer", [&] { inner = Platform::doEventLoop(100); });
  Handler other(log, "other");
  const auto outerTimer = Platform::getTimerControl(&outer);
  const auto otherTimer = Platform::getTimerControl(&other);
  outerTimer->setTimeout(0);
  otherTimer->setTimeout(0);
  testing::internal::CaptureStderr();
  Platform::doEventLoop();
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("reentrant invocation"));
  EXPECT_EQ(inner, -1);
  EXPECT_THAT(log, ElementsAre("outer", "other"));
}

TEST_F(EventLoopTest, ABaseIsMadeOncePerThread) {
  event_base* base = Tarvo::leInit();
  EXPECT_EQ(Tarvo::leInit(), base);
  Tarvo::leRegisterBase(base);
  event_base* other = Tarvo::leCreateBase();
  EXPECT_THAT(failureOf([&] { Tarvo::leRegisterBase(other); }),
              HasSubstr("but a thread_local  base already exists: "));
  event_base_free(other);
  EXPECT_EQ(event_base_get_npriorities(base), 2);
  Tarvo::leFree();
  EXPECT_FALSE(Tarvo::leInitialized());
  Tarvo::leFree();
}

TEST_F(EventLoopTest, ReportsOfTheEventLibraryAreTraced) {
  Tarvo::Platform::setTraceFormat("handle,level");
  testing::internal::CaptureStderr();
  Tarvo::le_debug_cb(2, "careful");
  Tarvo::le_debug_cb(3, "wrong");
  Tarvo::le_debug_cb(0, "chatter");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "TarvoLibevent 1 Tarvo::le_debug_cb() libevent: careful\n"
            "TarvoLibevent 0 Tarvo::le_debug_cb() libevent: wrong\n");
  EXPECT_THAT(failureOf([] { Tarvo::le_debug_cb(9, "odd"); }),
              HasSubstr("invalid libevent severity:9 msg:odd"));
  EXPECT_THAT(failureOf([] { Tarvo::le_fatal_cb(4); }), HasSubstr("libevent fatal error:4"));
}

}  // namespace
