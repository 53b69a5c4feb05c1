#include "support/SchedulerFixture.h"

namespace {

using namespace testsupport;

struct Stop : SchedulerFixture {};

TEST_F(Stop, EndsTheLoopAfterThePresentNotification) {
  Platform::stopEventLoop();  // outside of a loop: forgotten
  const auto stop = [](TestTask&) { Platform::stopEventLoop(); };
  const auto first = make("first", TaskPriority::normal, stop);
  const auto second = make("second", TaskPriority::normal, stop);
  Handler last(log, "last", [] { Platform::stopEventLoop(); });
  const auto timer = Platform::getTimerControl(&last);
  for (const bool virtualTime : {false, true}) {
    Platform::setFastForward(virtualTime);
    for (const double limit : {1e9, infinity}) {
      log.clear();
      first->scheduleTask();
      second->scheduleTask();
      EXPECT_EQ(Platform::doEventLoop(limit), 0);
      EXPECT_EQ(log, RunLog{"first"});
      EXPECT_EQ(Platform::doEventLoop(limit), 0);  // with what was left
      timer->setTimeout(0.0);
      EXPECT_EQ(Platform::doEventLoop(limit), 0);  // not 1, although nothing is left
      EXPECT_EQ(log, (RunLog{"first", "second", "last"}));
    }
  }
}

}  // namespace
