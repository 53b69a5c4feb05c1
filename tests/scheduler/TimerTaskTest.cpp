#include <algorithm>
#include <limits>

#include "support/SchedulerFixture.h"

namespace {

using namespace testsupport;
using TestTimer = Logged<Tarvo::TimerTask>;

constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();

struct TimerTaskTest : SchedulerFixture {
  TimerTaskTest() { Platform::setFastForward(true); }
  std::shared_ptr<TestTimer> makeTimer(const std::string& name) {
    return std::make_shared<TestTimer>(root, TaskPriority::normal, name, log);
  }
  std::shared_ptr<TestTimer> task = makeTimer("t");
};

TEST_F(TimerTaskTest, MayBeDroppedByItsHook) {
  for (const bool expires : {false, true}) {
    task = makeTimer("t");
    task->doStartTimer(1, true);
    task->onBusy = [this](TestTimer&) { task.reset(); };
    expires ? runLoop() : task->scheduleTask();
    EXPECT_EQ(task, nullptr);
  }
}

TEST_F(TimerTaskTest, MovesBetweenItsStates) {
  root->clearHistory();
  task->scheduleTaskDelay(0);
  EXPECT_TRUE(task->getStats().taskStatus().taskOnRunQueue());
  const double now = task->currentExpirationTime();
  EXPECT_LE(now, Tarvo::time());
  task->scheduleTaskLowestDelay(-1.0);
  EXPECT_FALSE(task->timerRunning()) << "a runnable task stays so";
  task->scheduleTaskDelay(std::chrono::hours(1));
  EXPECT_EQ(task->getStats().taskStatusString(), "Tn");
  task->scheduleTaskLowestDelay(3600.0);
  task->scheduleTaskLowestDelay(2'000'000'000LL);
  EXPECT_LE(task->timerRemaining(), 2.0);
  task->scheduleTask();
  task->scheduleTaskDelay(Tarvo::taskTimeNever);
  EXPECT_EQ(task->currentExpirationTime(), infinity);
  EXPECT_FALSE(task->taskScheduled());
  task->stopTimerTask();
  EXPECT_THAT(events(),
              ElementsAre("schedule t", "schedulerRunnable root", "busy t", "unschedule t",
                          "timerStart t", "timerStart t", "schedule t", "unschedule t", "idle t"));
  task->scheduleTaskDelay(1.0F);
  task->taskRunFromTest();
  EXPECT_FALSE(task->taskScheduled());
  task->body = [&](TestTimer&) { task.reset(); };
  task->scheduleTaskDelay(std::chrono::duration<double>(86400));
  Platform::doEventLoop(infinity);
  EXPECT_THAT(log, ElementsAre("t", "t"));
}

TEST_F(TimerTaskTest, ASuspendedTaskExpiresQuietlyAndRunsWhenItIsResumed) {
  task->scheduleTaskDelay(5.0);
  task->taskSuspendedIs(true);
  Platform::doEventLoop(10);
  EXPECT_EQ(events().back(), "idle t");
  task->taskSuspendedIs(false);
  task->scheduleTaskDelay(5.0);
  task->taskSuspendedIs(true);
  task->taskSuspendedIs(false);  // its timer still stands
  Platform::doEventLoop(infinity);
  EXPECT_THAT(log, ElementsAre("t"));
}

TEST_F(TimerTaskTest, JitterIsDrawnFromTheRootsSequence) {
  unsigned int state = 0;
  const auto percent = [&] { return rand_r(&state) / 21474836; };
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(task->jitterOffset(Tarvo::TaskTimeDuration{1001}, 37), 1001 * 37 * percent() / 10000);
    EXPECT_EQ(task->jitterOffset(3.7, 41), 41.0 * 3.7 * percent() / 10000.0);
  }
  task->scheduleTaskJitterUp(infinity, 101);  // never comes first
  EXPECT_THAT(failureOf([&] { task->scheduleTaskJitterUp(1.0, 101); }),
              HasSubstr("maxJitterPercentage: e > 100"));
  EXPECT_THAT(failureOf([&] { task->scheduleTaskJitterDown(-1.0, 100); }), HasSubstr("offset( "));
  percent();
  task->scheduleTaskJitterUp(1.0, 0);  // draws all the same
  percent();
  EXPECT_EQ(task->jitterOffset(1.0, 100), percent() / 100.0);
  const auto eternity = Tarvo::taskTimeNever - 1;
  for (int i = 0; i < 20; ++i) {
    task->scheduleTaskJitterUp(eternity, 100);
    EXPECT_TRUE(task->timerRunning());
    task->scheduleTaskJitterUp(std::numeric_limits<double>::max(), 100);
    EXPECT_TRUE(task->timerRunning());
    task->scheduleTaskJitterDown(eternity, 100);
    EXPECT_LE(task->timerRemaining(), 9.3e9);
  }
}

TEST_F(TimerTaskTest, RefusesWhatIsNoDelayAndChangesNothing) {
  task->scheduleTaskDelay(7.0);
  EXPECT_THAT(failureOf([&] { task->scheduleTaskDelay(notANumber); }), HasSubstr("NaN"));
  EXPECT_THAT(failureOf([&] { task->scheduleTaskJitterUp(notANumber, 0); }), HasSubstr("NaN"));
  EXPECT_THAT(failureOf([&] { task->doStartTimer(notANumber, true); }), HasSubstr("NaN"));
  EXPECT_THAT(failureOf([&] { task->scheduleTaskLowestDelay(infinity); }),
              HasSubstr("delayIntoFuture: inf"));
  EXPECT_NEAR(task->timerRemaining(), 7.0, 6.9);
  task->scheduleTaskDelay(std::chrono::seconds::max());
  EXPECT_FALSE(task->taskScheduled());
  task->scheduleTaskDelay(-infinity);
  Platform::doEventLoop(infinity);
  EXPECT_THAT(log, ElementsAre("t"));
}

TEST_F(TimerTaskTest, RunsWhatAModelSaysInItsOrder) {
  SeededRandom random;
  std::vector<std::shared_ptr<TestTimer>> tasks;
  for (int i = 0; i < 20; ++i) tasks.push_back(makeTimer(std::to_string(i)));
  std::vector<std::string> queued;                     // the runnable ones in their order
  std::vector<double> expiry(tasks.size(), infinity);  // of the pending ones
  for (int step = 0; step < 5000; ++step) {
    const unsigned i = random.below(20);
    TestTimer& one = *tasks[i];
    const double before = Tarvo::time();
    const double delay = random.below(50) + 1;
    switch (random.below(5)) {
      case 0:
        one.scheduleTaskDelay(delay);
        std::erase(queued, one.taskName());
        expiry[i] = one.currentExpirationTime();
        ASSERT_GE(expiry[i], before + delay);
        break;
      case 1:
        one.scheduleTaskLowestDelay(delay);
        if (!one.timerRunning()) break;
        ASSERT_TRUE(expiry[i] == one.currentExpirationTime() || expiry[i] > before + delay);
        expiry[i] = one.currentExpirationTime();
        ASSERT_LE(expiry[i], Tarvo::time() + delay);
        break;
      case 2:
        one.stopTimerTask();
        std::erase(queued, one.taskName());
        expiry[i] = infinity;
        break;
      case 3:
        one.scheduleTask();
        if (std::ranges::count(queued, one.taskName()) == 0) queued.push_back(one.taskName());
        expiry[i] = infinity;
        break;
      default: {
        log.clear();
        Platform::doEventLoop(delay);
        Platform::doEventLoop(0.02);  // beyond the steps of the coarse clock
        while (root->runnableTaskCount() > 0) Platform::doEventLoop(0.0);
        std::vector<std::pair<double, unsigned>> due;
        for (unsigned k = 0; k < 20; ++k) {
          const bool ran = expiry[k] != infinity && !tasks[k]->taskScheduled();
          ASSERT_TRUE(ran || expiry[k] > before + delay) << k << " is overdue";
          if (ran) due.emplace_back(std::exchange(expiry[k], infinity), k);
        }
        std::sort(due.begin(), due.end());
        for (const auto& [time, k] : due) queued.push_back(tasks[k]->taskName());
        ASSERT_EQ(log, queued) << "in step " << step;
        queued.clear();
      }
    }
  }
}

}  // namespace
