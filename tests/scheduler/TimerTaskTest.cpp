#include "support/SchedulerFixture.h"

namespace {

using namespace testsupport;
using TestTimer = Logged<Tarvo::TimerTask>;

constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();

struct TimerTaskTest : SchedulerFixture {
  TimerTaskTest() { Platform::setFastForward(true); }
  std::shared_ptr<TestTimer> makeTimer(const std::string& name, TestTimer::Body body = nullptr) {
    return std::make_shared<TestTimer>(root, TaskPriority::normal, name, log, std::move(body));
  }
  std::shared_ptr<TestTimer> task = makeTimer("t");
};

TEST_F(TimerTaskTest, MayBeDroppedByItsHook) {
  for (const bool expires : {false, true}) {
    task = makeTimer("t");
    task->doStartTimer(1, true);
    task->onBusy = [this](TestTimer&) { task.reset(); };
    if (expires) Platform::doEventLoop(infinity);
    if (!expires) task->scheduleTask();
    EXPECT_EQ(task, nullptr);
  }
}

TEST_F(TimerTaskTest, JitterIsDrawnFromTheRootsSequence) {
  unsigned int state = 0;
  const auto percent = [&] { return rand_r(&state) / 21474836; };
  EXPECT_EQ(task->jitterOffset(Tarvo::TaskTimeDuration{1001}, 37), 1001 * 37 * percent() / 10000);
  EXPECT_EQ(task->jitterOffset(3.7, 41), 41.0 * 3.7 * percent() / 10000.0);
  EXPECT_THAT(failureOf([&] { task->scheduleTaskJitterUp(1.0, 101); }),
              HasSubstr("maxJitterPercentage: e > 100"));
  const double up = percent(), down = percent();
  task->scheduleTaskJitterUp(100.0, 100);
  EXPECT_NEAR(task->timerRemaining(), 100 + up, 0.5);
  task->scheduleTaskJitterDown(std::chrono::seconds(100), 50);
  EXPECT_NEAR(task->timerRemaining(), 100 - down / 2, 0.5);
  for (int i = 0; i < 20; ++i) {
    task->scheduleTaskJitterUp(Tarvo::taskTimeNever - 1, 100);
    EXPECT_TRUE(task->timerRunning());
  }
}

TEST_F(TimerTaskTest, RefusesWhatIsNoDelayAndChangesNothing) {
  task->scheduleTaskDelay(7.0);
  const double due = task->currentExpirationTime();
  EXPECT_THAT(failureOf([&] { task->scheduleTaskDelay(notANumber); }), HasSubstr("NaN"));
  EXPECT_THAT(failureOf([&] { task->scheduleTaskJitterUp(notANumber, 0); }), HasSubstr("NaN"));
  EXPECT_THAT(failureOf([&] { task->doStartTimer(notANumber, true); }), HasSubstr("NaN"));
  EXPECT_THAT(failureOf([&] { task->scheduleTaskLowestDelay(infinity); }),
              HasSubstr("delayIntoFuture: inf"));
  task->scheduleTaskLowestDelay(std::chrono::seconds(9));
  EXPECT_EQ(task->currentExpirationTime(), due);
  task->scheduleTaskLowestDelay(std::chrono::seconds(5));
  EXPECT_NEAR(due - task->currentExpirationTime(), 2, 0.5);
  task->taskRunFromTest();
  EXPECT_FALSE(task->timerRunning());
  task->scheduleTaskDelay(-infinity);
  Platform::doEventLoop(infinity);
  EXPECT_THAT(log, ElementsAre("t", "t"));
}

}  // namespace
