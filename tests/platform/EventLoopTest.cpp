#include "support/LoopFixture.h"

namespace {

using namespace testsupport;

struct EventLoopTest : LoopFixture {};

TEST_F(EventLoopTest, DelaysOfAnySizeAreTaken) {
  Handler handler(log, "h");
  const auto timer = Platform::getTimerControl(&handler);
  timer->setTimeout(1e300);
  EXPECT_GT(timer->remainingTimeout(), 1e9);
  EXPECT_THAT(failureOf([&] { timer->setTimeout(std::nan("")); }),
              HasSubstr("LibeventFactoryCpp:"));
  EXPECT_GT(timer->remainingTimeout(), 1e9);  // a refused delay loses nothing
  EXPECT_THROW(Platform::doEventLoop(std::nan("")), Tarvo::AssertException);
  timer->setTimeout(-3);
  timer->setTimeout(infinity);
  EXPECT_EQ(Platform::doEventLoop(infinity), 1);
  EXPECT_THAT(log, ElementsAre());
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

TEST_F(EventLoopTest, DescriptorsAreReportedOrRefused) {
  const SocketPair pair;
  const int fd = pair.ends[0];
  Handler handler(log, "h", [&] {
    if (log.size() == 4) event_base_loopbreak(Tarvo::leInit());
  });
  const auto control = Platform::getFdControl(&handler);
  control->setWrites(true);  // only noted: there is no descriptor yet
  control->setFd(fd);
  EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
  ASSERT_EQ(write(pair.ends[1], "x", 1), 1);
  Platform::doEventLoop(20);
  // Unread data is reported again, the writable descriptor is not.
  EXPECT_EQ(std::ranges::count(log, "h write " + std::to_string(fd)), 1);
  const std::shared_ptr<FILE> plain(std::tmpfile(), std::fclose);
  EXPECT_THROW(control->setFd(fileno(plain.get())), Tarvo::RuntimeException);
  EXPECT_EQ(control->getFd(), -1);
  EXPECT_EQ(Platform::doEventLoop(), 1);  // nothing of the old descriptor is left
}

TEST_F(EventLoopTest, AnyHandlerMayDestroyItsControlAndThrowTwice) {
  const SocketPair pair;
  std::shared_ptr<void> control;
  Handler handler(log, "h", [&] {
    control.reset();
    throw 7;
  });
  handler.throwsAgain = true;
  for (const unsigned kind : {0U, 2U, 3U}) {
    control = armed(kind, handler, pair.ends[0]);
    EXPECT_THROW(Platform::doEventLoop(30), int);
    // The end of the bounded loop went with it.
    EXPECT_EQ(event_base_get_num_events(Tarvo::leInit(), EVENT_BASE_COUNT_ADDED), 0);
  }
  EXPECT_EQ(log.back(), "h fd -1 threw");
}

}  // namespace
