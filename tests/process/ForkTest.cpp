#include "Tarvo/ForkHandler.h"
#include "Tarvo/Thread.h"
#include "support/LoopFixture.h"

namespace {

using namespace testsupport;

struct ForkTest : LoopFixture {
  SocketPair pair;
  Handler timerHandler{log, "timer"};
  Handler callbackHandler{log, "callback"};
  Handler fdHandler{log, "fd", [this] { events->setReads(false); }};
  std::shared_ptr<Platform::TimerControl> timer = Platform::getTimerControl(&timerHandler);
  std::shared_ptr<Platform::CallbackControl> callback =
      Platform::getCallbackControl(&callbackHandler);
  std::shared_ptr<Platform::FdControl> events = Platform::getFdControl(&fdHandler);

  ForkTest() {
    timer->setTimeout(0.2);
    callback->requestCallback();
    events->setFd(pair.ends[0]);
    EXPECT_EQ(write(pair.ends[1], "x", 1), 1);
  }
  /// Serves everything that was armed; 0 when all of it came.
  int serveAll() {
    Platform::doEventLoop();
    return log == RunLog{"fd read " + std::to_string(pair.ends[0]), "callback", "timer"} ? 0 : 1;
  }
};

TEST_F(ForkTest, AChildRebuildsItsLoopWhileAThreadOfTheParentHeldTheGlobalLock) {
  std::latch held(1);
  std::latch done(1);
  std::jthread holder([&] {
    Platform::LocoGuard guard;
    held.count_down();
    done.wait();
  });
  held.wait();
  EXPECT_TRUE(Tarvo::isMainThread());
  const auto child = runForked([&] {
    if (!Platform::isForkedChild() || !Tarvo::isMainThread()) return 2;
    Tarvo::leForkReinit();
    Platform::setTraceFormat("pid,handle");
    Platform::dumpDebugMsg("traced", 6, 0, getDebugHandler("Child").get(), "", "", 0);
    return serveAll();
  });
  done.count_down();
  EXPECT_EQ(child.exitCode, 0);
  EXPECT_THAT(child.err, MatchesRegex("[0-9]+ Child traced\n"));
  EXPECT_FALSE(Platform::isForkedChild());
  EXPECT_EQ(serveAll(), 0);  // the parent is undisturbed
}

TEST_F(ForkTest, AChildThatOnlyCleansUpLeavesTheParentInPeace) {
  Platform::LocoGuard guard;  // and held by the forking thread itself it stays held
  const auto child = runForked([&] {
    if (!Platform::loco().owns_lock()) return 1;
    timer.reset();
    callback.reset();
    events.reset();
    Tarvo::leFree();
    return 0;
  });
  EXPECT_EQ(child.exitCode, 0);
  EXPECT_EQ(serveAll(), 0);
}

}  // namespace
