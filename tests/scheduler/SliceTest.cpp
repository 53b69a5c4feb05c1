#include "support/SchedulerFixture.h"

namespace {

using namespace testsupport;

/// Runs of 6 us beside something that only the kernel knows of. "busy" goes on for `runs` runs.
struct Slice : SchedulerFixture {
  Slice() { reads->setFd(sockets.ends[0]); }
  /// To be scheduled by the test.
  void makeBusy(int runs) {
    runsLeft = runs;
    busy = make("busy", TaskPriority::normal, [this](TestTask& self) {
      TestClock::advance(6e-6);
      if (--runsLeft > 0) self.scheduleTask();
      if (inFirst) std::exchange(inFirst, nullptr)();
    });
  }
  void reach() { ASSERT_EQ(write(sockets.ends[1], "x", 1), 1); }
  /// Runs five times; what `doInFirst` brings about comes when it must.
  RunLog during(std::function<void()> doInFirst) {
    log.clear();
    inFirst = std::move(doInFirst);
    makeBusy(5);
    busy->scheduleTask();
    Platform::doEventLoop(0.01);
    return log;
  }

  TestClock clock;
  SocketPair sockets;
  Handler reader{log, "reader", [this] {
                   char byte;
                   EXPECT_EQ(read(sockets.ends[0], &byte, 1), 1);
                 }};
  std::shared_ptr<Platform::FdControl> reads = Platform::getFdControl(&reader);
  std::function<void()> inFirst;
  int runsLeft = 0;
  TestTaskPtr busy;
};

TEST_F(Slice, WhatOnlyTheKernelKnowsWaitsForItsLengthAndOneRun) {
  constexpr auto longest = std::numeric_limits<Tarvo::TaskTimeDuration>::max();
  using Case = std::pair<Tarvo::TaskTimeDuration, std::ptrdiff_t>;
  for (const auto& [length, runsBefore] :
       {Case(root->runSlice(), 4), {6'000, 1}, {6'001, 2}, {0, 1}, {longest, 5}}) {
    root->runSliceIs(length);
    const RunLog ran = during([&] { reach(); });
    EXPECT_EQ(ran.size(), 6U);
    EXPECT_EQ(std::ranges::find_if_not(ran, [](auto& who) { return who == "busy"; }) - ran.begin(),
              runsBefore)
        << length;
  }
  EXPECT_THROW(root->runSliceIs(-1), Tarvo::AssertException);
}

TEST_F(Slice, WhatTheLoopKnowsComesBetweenAnyTwoRuns) {
  root->runSliceIs(1'000'000'000);
  const auto next = [](const char* what) {
    return ElementsAre("busy", what, "busy", "busy", "busy", "busy");
  };
  Handler handler(log, "handler");
  const auto callback = Platform::getCallbackControl(&handler);
  EXPECT_THAT(during([&] { callback->requestCallback(); }), next("handler"));
  const auto timer = Platform::getTimerControl(&handler);
  EXPECT_THAT(during([&] { timer->setTimeout(-1); }), next("handler"));
  // A timer that was armed before, brought forward.
  timer->setTimeout(100);
  EXPECT_THAT(during([&] { timer->setTimeout(0); }), next("handler"));
  event own;
  event_assign(
      &own, Tarvo::leInit(), -1, 0,
      [](int, short, void* to) { static_cast<RunLog*>(to)->push_back("active"); }, &log);
  EXPECT_THAT(during([&] { event_active(&own, EV_READ, 1); }), next("active"));
  const auto otherRoot = Tarvo::schedulerRootTarvoNonShared("other");
  const auto other = std::make_shared<TestTask>(otherRoot, TaskPriority::low, "other", log);
  EXPECT_THAT(during([&] { other->scheduleTask(); }), next("other"));
  // Requested by a handler before the slice, in the same turn.
  reader.action = [&, drain = reader.action] {
    drain();
    callback->requestCallback();
    busy->scheduleTask();
  };
  makeBusy(2);
  log.clear();
  reach();
  Platform::doEventLoop(0.01);
  EXPECT_THAT(log, ElementsAre(testing::_, "busy", "handler", "busy"));
}

TEST_F(Slice, ABrokenOrLimitedLoopEndsIt) {
  root->runSliceIs(1'000'000'000);
  EXPECT_THAT(during([] { event_base_loopbreak(Tarvo::leInit()); }), ElementsAre("busy"));
  Platform::doEventLoop(13e-6);
  EXPECT_EQ(log.size(), 4U);
  Platform::doEventLoop(0);
  EXPECT_EQ(log.size(), 5U);
  EXPECT_THAT(during([&] { root->suspendedIs(true); }), ElementsAre("busy"));
  root->suspendedIs(false);
  Platform::doEventLoop(0.01);
  EXPECT_EQ(log.size(), 5U);
}

TEST_F(Slice, NewsWakeAnIdleRootInTheSameTurnButTasksDoNot) {
  Handler second(log, "second");
  SocketPair more;
  const auto secondReads = Platform::getFdControl(&second);
  secondReads->setFd(more.ends[0]);
  second.action = [&] { secondReads->delFd(); };
  makeBusy(1);
  reader.action = [&, drain = reader.action] {
    drain();
    busy->scheduleTask();
    EXPECT_EQ(write(more.ends[1], "x", 1), 1);  // for the next turn
  };
  reach();
  Platform::doEventLoop(0.01);
  EXPECT_THAT(log, ElementsAre(testing::_, "busy", testing::StartsWith("second")));
  // Two roots that wake each other leave every turn to the kernel.
  log.clear();
  reader.action = [&] { reads->delFd(); };
  const auto otherRoot = Tarvo::schedulerRootTarvoNonShared("other");
  TestTaskPtr pong;
  const auto ping = make("ping", TaskPriority::normal, [&](TestTask&) {
    if (log.size() == 1) reach();
    pong->scheduleTask();
  });
  pong = std::make_shared<TestTask>(otherRoot, TaskPriority::normal, "pong", log, [&](TestTask&) {
    if (log.size() < 40) ping->scheduleTask();
  });
  ping->scheduleTask();
  Platform::doEventLoop(0.01);
  EXPECT_GT(log.size(), 39U);
  log.resize(3);
  EXPECT_THAT(log, testing::Contains(testing::StartsWith("reader")));
}

TEST_F(Slice, AForkedChildLeavesItForALoopOfItsOwn) {
  root->runSliceIs(1'000'000'000);
  bool child = false;
  during([&] { child = fork() == 0; });
  EXPECT_EQ(log.size(), 5U);
  if (child) _exit(log.size() == 5 ? 0 : 1);
  int status = -1;
  wait(&status);
  EXPECT_EQ(status, 0);
}

TEST_F(Slice, ABodyMayDropTheLastReferences) {
  auto other = Tarvo::schedulerRootTarvoNonShared("other");
  auto task = std::make_shared<TestTask>(other, TaskPriority::low, "task", log);
  other.reset();
  task->body = [&](TestTask& self) {
    self.scheduleTask();
    self.unscheduleTask();
    task.reset();
  };
  task->scheduleTask();
  Platform::doEventLoop(0.01);
  EXPECT_THAT(log, ElementsAre("task"));
}

}  // namespace
