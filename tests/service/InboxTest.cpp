#include "Tarvo/Inbox.h"

#include "Tarvo/LoopKeeper.h"
#include "Tarvo/MakeTask.h"
#include "support/AllocationCount.h"
#include "support/SchedulerFixture.h"

namespace {

using namespace testsupport;

struct InboxTest : SchedulerFixture {
  std::vector<int> served;
  std::function<void(int)> then;
  std::shared_ptr<Tarvo::Inbox<int>> ints =
      Tarvo::makeInbox<int>(root, TaskPriority::normal, "ints", [this](int& n) {
        served.push_back(n);
        if (then) then(n);
      });
};

TEST_F(InboxTest, GivesEachPostersItemsInOrderToItsThread) {
  constexpr std::size_t each = 20'000, posters = 4;
  ints.reset();
  std::array<std::size_t, posters> next{};
  using Item = std::array<std::size_t, 8>;  // of whom, which
  const auto inbox = Tarvo::makeInbox<Item>(root, TaskPriority::normal, "items", [&](Item& item) {
    EXPECT_EQ(item[1], next[item[0]]++);
  });
  inbox->taskQuantumIs(std::chrono::microseconds(50));
  std::vector<std::jthread> threads;
  std::atomic<std::size_t> left{posters};
  for (std::size_t poster = 0; poster < posters; ++poster) {
    threads.emplace_back([&left, poster, to = inbox->poster()] {
      for (std::size_t n = 0; n < each; ++n) EXPECT_TRUE(to.post({poster, n}));
      if (--left == 0) to.postEnd();
    });
  }
  Platform::doEventLoop();  // waits until the last of them has ended
  EXPECT_THAT(next, testing::Each(each));
  EXPECT_FALSE(inbox->post({}));
}

TEST_F(InboxTest, LeavesTheRestToTheNextRunWhenItYieldsThrowsOrIsSuspended) {
  then = [&](int n) {
    if (n == 1 || n == 6) throw 7;
    if (n == 2) ints->taskSuspendedIs(true);
  };
  for (int n = 0; n < 6; ++n) ints->post(n);
  EXPECT_THROW(Platform::doEventLoop(1), int);
  EXPECT_EQ(ints->taskWorkPending(), 4U);
  Platform::doEventLoop(0.0);
  EXPECT_EQ(served.size(), 3U);
  ints->taskTestYieldRatioIs(2);
  ints->taskSuspendedIs(false);
  ints->taskRunFromTest();
  EXPECT_EQ(ints->taskWorkPending(), 1U);
  ints->unscheduleTask();
  ints->post(6);  // brings the one that was left along
  ints->postEnd();
  EXPECT_THROW(Platform::doEventLoop(), int);
  Platform::doEventLoop();  // serves the end
  EXPECT_EQ(served, (std::vector{0, 1, 2, 3, 4, 5, 6}));
}

TEST_F(InboxTest, RefusesWhatIsTooManyOrTooLateAndLosesNothing) {
  ints.reset();
  struct Ends : Tarvo::Inbox<std::unique_ptr<int>> {
    using Inbox::Inbox;
    void taskExecuteItem(std::unique_ptr<int>& item) override { sum += *item; }
    void taskExecuteEnd() override { sum += 1000; }
    int sum = 0;
  };
  auto inbox = std::make_shared<Ends>(root, TaskPriority::normal, "few", 2);
  const auto poster = inbox->poster();
  auto item = std::make_unique<int>(1);
  for (const int n : {10, 20}) EXPECT_TRUE(poster.tryPost(std::make_unique<int>(n)));
  EXPECT_FALSE(poster.tryPost(std::move(item)));
  EXPECT_TRUE(poster.post(std::make_unique<int>(30)));
  poster.postEnd();
  EXPECT_FALSE(poster.post(std::make_unique<int>(40)));
  Platform::doEventLoop();
  EXPECT_EQ(inbox->sum, 1060);
  inbox.reset();
  EXPECT_FALSE(poster.tryPost(std::move(item)));
  EXPECT_FALSE(decltype(poster)().post(nullptr));
  EXPECT_EQ(*item, 1);

  // What nobody took goes with the inbox, or with its thread.
  const auto held = std::make_shared<int>();
  std::thread([&] {
    const auto lost = Tarvo::makeInbox<std::shared_ptr<void>>(
        Tarvo::schedulerRootTarvo(), TaskPriority::normal, "lost", [](auto&) {});
    lost->post(lost);  // holds it
    for (int n = 0; n < 100; ++n) lost->post(held);
    lost->unscheduleTask();
  }).join();
  EXPECT_EQ(held.use_count(), 1);
}

TEST_F(InboxTest, AllocatesNothingOnceItIsWarm) {
  unsigned long counted = 0;
  served.reserve(3000);
  for (int round = 0; round < 3; ++round) {
    counted = allocations;
    for (int n = 0; n < 1000; ++n) ints->post(n);
    ints->taskRunFromTest();
  }
  EXPECT_EQ(allocations, counted);
  Platform::doEventLoop(0.0);
}

TEST_F(InboxTest, HasWorkDoneOverThere) {
  Tarvo::CallPoster over;
  std::latch ready(1);
  std::jthread other([&] {
    const auto calls = std::make_shared<Tarvo::CallInbox>(Tarvo::schedulerRootTarvo(),
                                                          TaskPriority::normal, "calls");
    over = calls->poster();
    EXPECT_THAT(errorOf([&] { over.callAndWait([] {}); }), HasSubstr("calls: called on its own"));
    ready.count_down();
    Platform::doEventLoop();
  });
  ready.wait();
  EXPECT_EQ(over.callAndWait([] { return std::this_thread::get_id(); }), other.get_id());
  EXPECT_THROW(over.callAndWait([] { throw 7; }), int);
  const auto untilItFails = [&] {
    while (true) over.callAndWait([] {});
  };
  // A child has no such thread, and here it ends before the second one's turn.
  EXPECT_EQ(runForked([&] { return errorOf(untilItFails).empty(); }).exitCode, 0);
  over.post([] { Platform::stopEventLoop(); });
  EXPECT_THAT(errorOf(untilItFails), HasSubstr("calls: ended before"));
}

TEST_F(InboxTest, OpenOnesAndKeepersHoldTheLoopAlsoInVirtualTime) {
  Platform::setFastForward(true);
  auto keeper = std::make_unique<Tarvo::LoopKeeper>();
  const auto timer = Tarvo::makeTimerTask(root, TaskPriority::normal, "timer", [&] {
    served.push_back(-1);
    keeper.reset();
  });
  const double begin = Tarvo::time();
  timer->scheduleTaskDelay(std::chrono::hours(1));
  std::thread([&] { ints->post(1); }).join();
  std::jthread later([to = ints->poster()] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    to.post(2), to.postEnd();
  });
  EXPECT_EQ(Platform::doEventLoop(infinity), 1);
  EXPECT_EQ(served, (std::vector{1, -1, 2}));
  EXPECT_NEAR(Tarvo::time() - begin, 3600, 60);
}

TEST_F(InboxTest, OfAForkedChildGoOnWithCopies) {
  ints->post(1);
  const auto child = runForked([&] {
    ints->post(2);
    Tarvo::leForkReinit();
    Platform::doEventLoop(0.0);
    std::jthread later([to = ints->poster()] { to.post(3), to.postEnd(); });
    Platform::doEventLoop();
    return served == std::vector{1, 2, 3} ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode, 0) << child.err;
  ints->postEnd();
  Platform::doEventLoop();
  EXPECT_EQ(served, std::vector{1});
}

TEST_F(InboxTest, OfAForkedChildAreNotLockedByAPosterThatItLacks) {
  const auto inbox = Tarvo::makeInbox<int>(
      root, TaskPriority::normal, "few", [](int) {}, 1000);
  const std::jthread poster([to = inbox->poster()](const std::stop_token& stop) {
    while (!stop.stop_requested()) to.tryPost(1);
  });
  for (int n = 0; n < 40; ++n)
    ASSERT_EQ(runForked([&] { return alarm(5), inbox->post(2) ? 0 : 1; }).exitCode, 0);
}

}  // namespace
