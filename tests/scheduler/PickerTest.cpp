#include <algorithm>
#include <array>
#include <deque>

#include "support/SchedulerFixture.h"

namespace {

using namespace testsupport;

/// The choice in a few lines of plain arithmetic.
struct Model {
  static constexpr std::array<std::uint32_t, 5> weight = {0, 64, 8, 1, 0};

  TestTask* pick(std::size_t from = 0) {
    for (std::size_t p = from; p < 5; ++p) {
      if (queue[p].empty()) {
        row[p] = 0;
        continue;
      }
      std::uint32_t waiting = 0;
      for (std::size_t q = p + 1; q <= 3; ++q) waiting += weight[q] * size(q);
      const bool mayYield = (p == 1 || p == 2) && waiting > 0;
      if (mayYield && waiting * row[p] > size(p) * weight[p]) {
        if (TestTask* lower = pick(p + 1)) {
          row[p] = 0;
          return lower;
        }
      }
      ++row[p];
      TestTask* task = queue[p].front();
      queue[p].pop_front();
      return task;
    }
    return nullptr;
  }
  std::uint32_t size(std::size_t p) const { return static_cast<std::uint32_t>(queue[p].size()); }

  std::array<std::deque<TestTask*>, 5> queue;
  std::array<std::uint32_t, 5> row{};
};

struct Picker : SchedulerFixture {};

TEST_F(Picker, ChoosesAsThePlainArithmeticDoes) {
  SeededRandom random;
  std::vector<TestTaskPtr> tasks;
  for (int i = 0; i < 60; ++i) {
    tasks.push_back(make("t", TaskPriority(static_cast<std::uint8_t>(i % 5))));
  }
  root->suspendedIs(true);  // the test picks
  Model model;
  for (int round = 0; round < 3000; ++round) {
    const unsigned share = round % 100 < 10 ? 0 : random.below(12);
    for (const auto& task : tasks) {
      if (random.below(100) >= share || task->taskScheduled()) continue;
      task->scheduleTask();
      model.queue[task->taskPriority()].push_back(task.get());
    }
    if (random.below(8) == 0) {
      TestTask* dropped = tasks[random.below(60)].get();
      dropped->unscheduleTask();
      std::erase(model.queue[dropped->taskPriority()], dropped);
    }
    for (auto picks = random.below(6); picks > 0; --picks) {
      ASSERT_EQ(root->pickOneTask(Tarvo::TaskClock::now()), model.pick()) << "round " << round;
    }
    for (std::uint8_t p = 0; p < 5; ++p) {
      ASSERT_EQ(root->runnableTaskCount(TaskPriority(p)), model.size(p));
    }
  }
}

}  // namespace
