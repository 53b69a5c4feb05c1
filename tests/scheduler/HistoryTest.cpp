#include "support/SchedulerFixture.h"

namespace {

using namespace testsupport;
using Type = Tarvo::TaskSchedulerEventType;

struct History : SchedulerFixture {
  RunLog lines() const {
    RunLog all;
    std::stringstream text;
    root->historyRenderTextForDebug(text);
    for (std::string line; std::getline(text, line);) all.push_back(line);
    return all;
  }
  template <typename Who>
  void insert(long ns, Type type, const Who& who) {
    root->history().insert(Tarvo::TaskClock::time_point(std::chrono::nanoseconds(ns)), type,
                           who.get());
  }
};

TEST_F(History, ShowsTheNewestFirstWithAges) {
  root->historyEntryCountIs(3);
  {
    const auto task = make("poll");
    for (int i = 0; i < 5; ++i) insert(1'000'000 + i * 1999, Type::schedule, task);
  }  // one more: the task is deleted
  insert(1'009'997, Type::schedulerTestYieldRatioOff, root);
  using testing::MatchesRegex;
  EXPECT_THAT(
      lines(),
      ElementsAre("Last 3 scheduler events, absolute timestamp and relative to last event",
                  MatchesRegex("-+"),
                  "               1009997 ns since boot          0 \u00b5s "
                  "schedulerTestYieldRatioOff root",
                  MatchesRegex(" +[0-9]+ ns since boot +-?[0-9]+ \u00b5s delete       poll"),
                  "               1007996 ns since boot          2 \u00b5s schedule     poll", ""))
      << "a dead task keeps its name, an age loses its fraction";
}

TEST_F(History, KeepsTheNewestWhenItShrinksAndNothingAtZero) {
  const auto task = make("t");
  for (int i = 0; i < 150; ++i) insert(i, Type::busy, task);
  EXPECT_EQ(root->historyEntryCount(), 100U);
  root->historyEntryCountIs(2);
  EXPECT_THAT(lines()[2] + lines()[3], testing::ContainsRegex(" 149 ns.* 148 ns"));
  root->historyEntryCountIs(0);
  task->scheduleTask();
  EXPECT_EQ(lines().size(), 3U);
  EXPECT_THROW(root->historyEntryCountIs(0x10000000), std::length_error);
  root->historyEntryCountIs(2);
  task->unscheduleTask();
  EXPECT_THAT(events(), ElementsAre("unschedule t", "idle t"));
}

}  // namespace
