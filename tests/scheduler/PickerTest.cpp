#include "support/SchedulerFixture.h"

namespace {

using namespace testsupport;

struct Picker : SchedulerFixture {
  /// By their priorities, as tasks of those priorities are runnable all the time.
  std::string picks(const std::string& always) {
    root->suspendedIs(true);  // the test picks
    EXPECT_EQ(root->pickOneTask(Tarvo::TaskClock::now()), nullptr);
    std::vector<TestTaskPtr> tasks;
    for (const char priority : always) {
      tasks.push_back(make({priority}, TaskPriority(static_cast<std::uint8_t>(priority - '0'))));
      tasks.back()->scheduleTask();
    }
    std::string picked;
    while (picked.size() < 99) {
      Tarvo::TaskImpl* const task = root->pickOneTask(Tarvo::TaskClock::now());
      picked += task->taskName();
      task->scheduleTask();
    }
    return picked;
  }
};

TEST_F(Picker, HighAndNormalYieldInProportionToWhatWaits) {
  for (const auto& [always, row, next] : {std::tuple("12", 9U, '2'),
                                          {"13", 65U, '3'},
                                          {"23", 9U, '3'},
                                          {"112", 17U, '2'},
                                          {"1222", 3U, '2'},
                                          {"123", 8U, '2'}}) {
    const std::string picked = picks(always), inRow(row, *always);
    EXPECT_THAT(picked, testing::StartsWith(inRow + next + inRow.substr(0, 98 - row))) << always;
  }
  EXPECT_EQ(picks("123").find('3'), 89U) << "when normal has been passed over to nine times";
  for (const char* always : {"0123", "14", "24", "34"}) {
    EXPECT_EQ(picks(always), std::string(99, always[0]));
  }
}

}  // namespace
