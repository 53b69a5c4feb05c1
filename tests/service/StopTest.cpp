#include "support/SchedulerFixture.h"

namespace {

using namespace testsupport;

struct Stop : SchedulerFixture {};

TEST_F(Stop, EndsTheLoopAfterThePresentNotification) {
  Platform::stopEventLoop();  // outside of a loop: forgotten
  const auto keepOn = [&](TestTask& self) { self.scheduleTask(); };
  const auto stop = [&](TestTask&) { Platform::stopEventLoop(); };
  const auto first = make("first", TaskPriority::normal, stop);
  const auto second = make("second", TaskPriority::normal, keepOn);
  Handler last(log, "last", [] { Platform::stopEventLoop(); });
  const auto timer = Platform::getTimerControl(&last);
  const std::function<int()> loops[] = {[] { return Platform::doEventLoop(); },
                                        [] { return Platform::doEventLoop(1e9); },
                                        [] { return Platform::doEventLoop(infinity); },
                                        [] { return Platform::doEventLoopInWaitfor(1e9); }};
  for (const bool virtualTime : {false, true}) {
    Platform::setFastForward(virtualTime);
    for (const auto& loop : loops) {
      log.clear();
      first->scheduleTask();
      second->scheduleTask();
      EXPECT_EQ(loop(), 0);
      EXPECT_EQ(log, RunLog{"first"});
      second->body = stop;
      EXPECT_EQ(loop(), 0);  // with what was left
      second->body = keepOn;
      EXPECT_EQ(log.back(), "second");
      timer->setTimeout(0.0);
      EXPECT_EQ(Platform::doEventLoop(), 0);  // not 1, although nothing is left
      EXPECT_EQ(log.back(), "last");
    }
  }
}

}  // namespace
