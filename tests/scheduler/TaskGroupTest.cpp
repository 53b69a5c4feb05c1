#include "support/SchedulerFixture.h"

namespace {

using namespace testsupport;
using Tarvo::TaskGroup;

/// Members that go on take eleven virtual milliseconds a run.
struct TaskGroupTest : SchedulerFixture {
  TaskGroupTest() {
    Platform::setFastForward(true);
    root->virtualTimeIs(true);
  }
  TestTaskPtr member(const std::string& name, int runs = 1,
                     TaskPriority priority = TaskPriority::normal) {
    const auto body = [left = std::make_shared<int>(runs)](TestTask& self) {
      Platform::fastForwardBy(0.011);
      if (--*left > 0) self.scheduleTask();
    };
    return make(name, priority, body, group);
  }
  /// Runs all until nothing is left, and tells who ran.
  RunLog runs(std::initializer_list<TestTaskPtr> tasks) {
    for (const auto& each : tasks) each->scheduleTask();
    runLoop();
    return std::exchange(log, {});
  }
  const TestClock clock;
  TestTaskPtr other = make("other", TaskPriority::normal, [this](TestTask& self) {
    if (group->parentTaskScheduled()) self.scheduleTask();
  });
  std::shared_ptr<TaskGroup> group =
      std::make_shared<TaskGroup>("group", TaskPriority::normal, false, root);
};

TEST_F(TaskGroupTest, MembersShareOnePlaceUnderTheGroupsQuantum) {
  const auto low = member("low", 1, TaskPriority::low),
             high = member("high", 1, TaskPriority::high);
  const auto a = member("a", 4);
  group->taskGroupQuantumIs(std::chrono::milliseconds(20));
  root->defaultTaskQuantumIs(123);
  const auto later = std::make_shared<TaskGroup>("later", TaskPriority::normal, false, root);
  EXPECT_EQ(later->defaultTaskQuantum(), 123);
  EXPECT_THAT(runs({low, a, high, other}),
              ElementsAre("high", "a", "other", "a", "a", "other", "a", "low", "other"));
  EXPECT_EQ(group->parentTask().taskWorkCountTotal(), 6U);
  a->scheduleTask();
  a->unscheduleTask();
  EXPECT_THAT(runs({}), ElementsAre());
  EXPECT_FALSE(group->schedulerHasRunnableTasks());
  EXPECT_EQ(group->parentTaskRunCount(), 4U);
  a->scheduleTask();
  root->findSchedulerForTest("group")->handleSchedulerRun();
  EXPECT_THAT(runs({}), ElementsAre("a"));
  root->resetStats();
  EXPECT_EQ(a->taskRunCount(), 0U);
}

TEST_F(TaskGroupTest, SingleRunsWaitForTheNextPassAlsoAfterAThrow) {
  group->tasksPermittedMultipleRunsIs(false);
  const auto a = member("a", 2), b = member("b", 2), c = member("c");
  EXPECT_THAT(runs({a, b, other}), ElementsAre("a", "b", "other", "a", "b", "other"));
  EXPECT_EQ(group->parentTaskRunCount(), 2U) << "no empty passes";
  a->body = [](TestTask& self) {
    self.body = nullptr;
    self.scheduleTask();
    throw std::runtime_error("bad");
  };
  EXPECT_THROW(runs({a, b, c}), std::runtime_error);
  EXPECT_EQ(group->parentTask().taskThrewCount(), 1U) << "it passed through";
  EXPECT_THAT(runs({}), ElementsAre("a", "b", "c", "a"));
  EXPECT_EQ(group->runnableTaskCount(), 0U);
}

}  // namespace
