#include "Tarvo/TaskControl.h"

#include "support/SchedulerFixture.h"

namespace {

using namespace testsupport;

struct TaskControlTest : SchedulerFixture {
  void run() {
    for (int pass = 0; pass < 8; ++pass) Platform::doEventLoop(0.0);
  }
  Handler handler{log, "h"};
};

TEST_F(TaskControlTest, NotificationsAreRuns) {
  {
    auto timer = Platform::getTimerControl(&handler, root, TaskPriority::high, "timer");
    auto callback = Platform::getCallbackControl(&handler, root, TaskPriority::high, "callback");
    EXPECT_EQ(timer->remainingTimeout(), infinity);
    timer->setTimeout(100);
    EXPECT_GT(timer->remainingTimeout(), 0.0);
    timer->setTimeout(infinity);
    EXPECT_EQ(timer->remainingTimeout(), infinity);
    timer->setTimeout(0);
    EXPECT_EQ(timer->remainingTimeout(), infinity) << "it waits for its run";
    callback->requestCallback();
    callback->requestCallback();
    callback->cancelCallback();
    EXPECT_FALSE(callback->pendingCallback());
    callback->requestCallback();
    run();
    EXPECT_THAT(log, ElementsAre("h", "h"));
    handler.action = [&] {
      timer.reset();
      callback.reset();
      throw std::runtime_error("bad");
    };
    callback->requestCallback();
    timer->setTimeout(0);
    EXPECT_THROW(run(), std::runtime_error);
    run();
    EXPECT_THAT(log, ElementsAre("h", "h", "h")) << "nobody was asked, the timer is gone";
  }
  EXPECT_EQ(Tarvo::allocationCount<Platform::TaskTimerControl>().objects, 0);
}

TEST_F(TaskControlTest, ADescriptorHandlerIsAskedAboutItsExceptions) {
  SocketPair pair;
  const int fd = pair.ends[0];
  const auto control = Platform::getFdControl(&handler, root, TaskPriority::normal, "fd");
  control->setReads(false);
  control->setWrites(true);
  control->setFd(fd);
  run();
  run();
  EXPECT_THAT(log, ElementsAre(fmt::format("h write {}", fd)));
  log.clear();
  handler.action = [&] {
    control->clearEvents();
    throw 1;
  };
  for (const bool handles : {true, false}) {
    handler.handles = handles;
    control->setFd(fd);
    control->setWrites(true);
    EXPECT_EQ(control->getFd(), fd);
    if (handles) {
      run();
    } else {
      EXPECT_THROW(run(), int);
    }
  }
  EXPECT_THAT(log, ElementsAre(fmt::format("h write {}", fd), "h fd -1 threw",
                               fmt::format("h write {}", fd), "h fd -1 threw"));
}

}  // namespace
