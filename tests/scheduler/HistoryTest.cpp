#include <array>
#include <stdexcept>

#include "support/SchedulerFixture.h"

namespace {

using namespace testsupport;
using Tarvo::TaskClock;
using Type = Tarvo::TaskSchedulerEventType;

struct History : SchedulerFixture {
  RunLog lines() const {
    RunLog all;
    std::istringstream text(root->historyRenderTextForDebugToString());
    for (std::string line; std::getline(text, line);) all.push_back(line);
    return all;
  }
};

TEST_F(History, ShowsTheNewestFirstWithAges) {
  root->historyEntryCountIs(3);
  const auto start = TaskClock::time_point(std::chrono::nanoseconds(1'000'000));
  {
    const auto task = make("poll");
    for (int i = 0; i < 5; ++i) {
      const auto type = i == 3 ? Type::runStart : Type::schedule;
      root->history().insert(start + std::chrono::nanoseconds(i * 1999), type, task.get());
    }
  }  // two more: idle marks nothing, the task is deleted
  root->history().insert(start + std::chrono::nanoseconds(9'997), Type::schedulerTestYieldRatioOff,
                         root.get());
  const std::string header =
      "Last 3 scheduler events, absolute timestamp and relative to last event";
  const auto shown = lines();
  ASSERT_EQ(shown.size(), 6U);
  EXPECT_EQ(shown[0], header);
  EXPECT_EQ(shown[1], std::string(header.size(), '-'));
  EXPECT_EQ(
      shown[2],
      "               1009997 ns since boot          0 \u00b5s schedulerTestYieldRatioOff root");
  EXPECT_THAT(shown[3],
              testing::MatchesRegex(" +[0-9]+ ns since boot +-?[0-9]+ \u00b5s delete       poll"));
  EXPECT_EQ(shown[4], "               1007996 ns since boot          2 \u00b5s schedule     poll")
      << "a dead task keeps its name, an age loses its fraction";
}

TEST_F(History, KeepsTheNewestWhenItShrinksAndNothingAtZero) {
  const auto task = make("t");
  root->clearHistory();
  for (int i = 0; i < 150; ++i) {
    root->history().insert(TaskClock::time_point(std::chrono::nanoseconds(i)), Type::busy,
                           task.get());
  }
  EXPECT_EQ(root->historyEntryCount(), 100U);
  root->historyEntryCountIs(2);
  EXPECT_THAT(lines()[2], HasSubstr(" 149 ns"));
  EXPECT_THAT(lines()[3], HasSubstr(" 148 ns"));
  root->historyEntryCountIs(0);
  task->scheduleTask();
  EXPECT_EQ(lines().size(), 3U);
  EXPECT_THROW(root->historyEntryCountIs(0x10000000), std::length_error);
  root->historyEntryCountIs(2);
  task->unscheduleTask();
  EXPECT_THAT(events(), ElementsAre("unschedule t", "idle t"));

  const SocketPair pair;
  root->historyRenderTextForDebug(pair.ends[1]);
  std::array<char, 1000> buffer{};
  ASSERT_GT(read(pair.ends[0], buffer.data(), buffer.size()), 0);
  EXPECT_EQ(buffer.data(), root->historyRenderTextForDebugToString());
  EXPECT_EQ(write(pair.ends[1], "", 1), 1) << "still open";
}

TEST_F(History, RefusesEventsOfTheOtherKind) {
  const auto task = make("t");
  const auto failure = [&](int type, auto* who) {
    return failureOf(
        [&] { root->history().insert(TaskClock::now(), static_cast<Type>(type), who); });
  };
  EXPECT_THAT(failure(15, task.get()), HasSubstr("EventType: 15"));
  EXPECT_THAT(failure(2, root.get()), HasSubstr("EventType: 2"));
  EXPECT_THAT(failure(24, task.get()), HasSubstr("unexpected eventType=24"));
  EXPECT_THAT(failure(255, root.get()), HasSubstr("unexpected eventType=255"));
}

}  // namespace
