#include <event2/event.h>
#include <malloc.h>

#include "Tarvo/TaskSchedulerRoot.h"
#include "Tarvo/Thread.h"
#include "support/LoopFixture.h"

namespace {

using namespace testsupport;

struct ThreadLoopTest : LoopFixture {};

/// Uses everything of the thread's loop, and leaves some of it armed.
void useLoop(RunLog& log) {
  Handler handler(log, "h");
  const auto timer = Platform::getTimerControl(&handler, Tarvo::getTimerWheel());
  timer->setTimeout(0);
  Platform::doEventLoop();
  timer->setTimeout(100);
  Tarvo::schedulerRootTarvo()->requestSchedulerRun();
}

struct UsesLoopAtEnd {
  ~UsesLoopAtEnd() { useLoop(log); }
  RunLog& log;
};

TEST_F(ThreadLoopTest, GoesWhenItsThreadHasEnded) {
  Tarvo::leInit();
  std::shared_ptr<Platform::TimerControl> left;
  event_base* program = nullptr;
  Handler handler(log, "left");
  static pthread_key_t key;
  ASSERT_EQ(pthread_key_create(&key, [](void* runLog) { useLoop(*static_cast<RunLog*>(runLog)); }),
            0);
  const std::function<void()> uses[] = {
      [&] {
        useLoop(log);
        pthread_cancel(pthread_self());  // closing must not be what ends it
      },
      [&] {
        thread_local const UsesLoopAtEnd before{log};
        static_cast<void>(before);
        useLoop(log);
      },
      [&] { pthread_setspecific(key, &log); },  // after the loop has gone, or before
      [&] {
        useLoop(log);
        pthread_setspecific(key, &log);
      },
      [&] {
        left = Platform::getTimerControl(&handler);
        left->setTimeout(50);
      },
      [&] {
        program = Tarvo::leCreateBase();
        Tarvo::leRegisterBase(program);
        useLoop(log);
      },
  };
  const auto before = openDescriptors();
  for (const auto& use : uses) {
    std::thread([&] {
      Tarvo::useThreadLocalSingletons();
      use();
    }).join();
    if (program != nullptr) {  // the program's own is left to it
      EXPECT_EQ(event_base_loop(program, EVLOOP_NONBLOCK), 1);
      event_base_free(std::exchange(program, nullptr));
    }
    EXPECT_EQ(openDescriptors(), before) << "use " << &use - uses;
  }
  pthread_key_delete(key);
  EXPECT_EQ(std::ranges::count(log, "h"), 7);
  left->setTimeout(0);  // on this thread's loop from now on
  Platform::doEventLoop();
  EXPECT_EQ(log.back(), "left");
}

TEST_F(ThreadLoopTest, LeavesNothingWhenItIsFreedAgainAndAgain) {
  const auto rounds = [](int count) {
    for (int i = 0; i < count; ++i) {
      Tarvo::schedulerRootTarvo();
      Tarvo::getTimerWheel();
      Tarvo::leFree();
    }
    return mallinfo2().uordblks;
  };
  const auto before = rounds(100);
  EXPECT_LT(rounds(2000), before + 20000);
}

TEST_F(ThreadLoopTest, DoesNotWaitForTheTimersOfEmptyWheels) {
  const TestClock clock;
  const auto wheel = Tarvo::getTimerWheelForTaskScheduler(Platform::eventPriorityDefault);
  Handler hourly(log, "hour");
  const auto hour = Platform::getTimerControl(&hourly, wheel);
  Handler stops(log, "stop", [&] { hour->delTimeout(); });
  const auto stop = Platform::getTimerControl(&stops);
  const auto run = [&](double limit) {
    const double begin = Tarvo::time();
    EXPECT_EQ(Platform::doEventLoop(limit), limit == infinity ? 1 : 0);
    return Tarvo::time() - begin;
  };
  for (const bool fastForward : {false, true}) {
    Platform::setFastForward(fastForward);
    hour->setTimeout(3600);
    stop->setTimeout(1);
    EXPECT_NEAR(run(infinity), 1, 0.1);  // stopped by the last that was waited for
    hour->setTimeout(3600);
    hour->delTimeout();
    EXPECT_NEAR(run(5), 5, 0.1);
    hour->setTimeout(20);  // an empty one that is not empty any more
    EXPECT_NEAR(run(infinity), 20, 0.1);
    EXPECT_THAT(std::exchange(log, {}), ElementsAre("stop", "hour"));
  }
  wheel->setMasterTimer();  // disarms it
}

TEST_F(ThreadLoopTest, ACancellationPassesWhateverTheThreadIsNotifiedOf) {
  for (const unsigned kind : {0U, 1U, 2U, 3U}) {
    std::jthread([&] {
      Tarvo::useThreadLocalSingletons();
      Handler handler(log, "h", [] {
        pthread_cancel(pthread_self());
        pthread_testcancel();
      });
      handler.handles = true;  // which a cancellation must not be
      const SocketPair pair;
      const auto control = armed(kind, handler, pair.ends[0]);
      Platform::doEventLoop();
      log.push_back("not reached");
    });
  }
  EXPECT_THAT(log, ElementsAre("h", "h", "h", HasSubstr("h write")));
}

}  // namespace
