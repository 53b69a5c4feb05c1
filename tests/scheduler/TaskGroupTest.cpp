#include <algorithm>

#include "support/SchedulerFixture.h"

namespace {

using namespace testsupport;
using Tarvo::TaskGroup;

/// Members that go on take ten virtual milliseconds a run.
struct TaskGroupTest : SchedulerFixture {
  TaskGroupTest() {
    Platform::setFastForward(true);
    root->virtualTimeIs(true);
  }
  TestTaskPtr member(const std::string& name, int runs = 1,
                     TaskPriority priority = TaskPriority::normal) {
    return std::allocate_shared<TestTask>(Tarvo::Allocator<TestTask>(), group, priority, name, log,
                                          [left = std::make_shared<int>(runs)](TestTask& self) {
                                            Platform::fastForwardBy(0.01);
                                            if (--*left > 0) self.scheduleTask();
                                          });
  }
  TestTaskPtr other = make("other", TaskPriority::normal, [this](TestTask& self) {
    if (group->parentTaskScheduled()) self.scheduleTask();
  });
  std::shared_ptr<TaskGroup> group =
      std::make_shared<TaskGroup>("group", TaskPriority::normal, false, root);
};

TEST_F(TaskGroupTest, MembersShareOnePlaceUnderTheGroupsQuantum) {
  const auto low = member("low", 1, TaskPriority::low);
  const auto high = member("high", 1, TaskPriority::high);
  const auto a = member("a", 4);
  for (const auto& each : {low, a, high}) each->scheduleTask();
  other->scheduleTask();
  EXPECT_EQ(root->runnableTaskCount(), 2U);
  group->taskGroupQuantumIs(std::chrono::milliseconds(20));
  runLoop();
  EXPECT_THAT(log, ElementsAre("high", "a", "other", "a", "a", "other", "a", "low", "other"));
  const auto stats = root->taskStatForTest("group");
  EXPECT_EQ(stats->taskWorkCountTotal(), 6U);
  EXPECT_FALSE(group->parentTaskScheduled());
  EXPECT_FALSE(group->schedulerHasRunnableTasks());
  a->scheduleTask();
  a->unscheduleTask();
  log.clear();
  runLoop();
  EXPECT_FALSE(group->schedulerHasRunnableTasks());
  EXPECT_EQ(group->parentTaskRunCount(), 4U);
}

TEST_F(TaskGroupTest, SingleRunsWaitForTheNextPassAlsoAfterAThrow) {
  group->tasksPermittedMultipleRunsIs(false);
  const auto a = member("a", 2);
  const auto b = member("b", 2);
  a->scheduleTask();
  b->scheduleTask();
  other->scheduleTask();
  runLoop();
  EXPECT_THAT(log, ElementsAre("a", "b", "other", "a", "b", "other"));
  EXPECT_EQ(group->parentTaskRunCount(), 2U) << "no empty passes";
  log.clear();
  a->body = [](TestTask& self) {
    self.body = nullptr;
    self.scheduleTask();
    throw std::runtime_error("bad");
  };
  const auto c = member("c");
  for (const auto& each : {a, b, c}) each->scheduleTask();
  EXPECT_THROW(Platform::doEventLoop(), std::runtime_error);
  EXPECT_EQ(group->parentTask().taskThrewCount(), 1U) << "it passed through";
  runLoop();
  EXPECT_THAT(log, ElementsAre("a", "b", "c", "a"));
  EXPECT_EQ(group->runnableTaskCount(), 0U);
}

TEST_F(TaskGroupTest, APassEndsWhenItsThreadIsSuspended) {
  const auto a = member("a");
  const auto b = member("b");
  for (const bool multiple : {true, false}) {
    group->tasksPermittedMultipleRunsIs(multiple);
    a->body = [&](TestTask&) { root->suspendedIs(true); };
    a->scheduleTask();
    b->scheduleTask();
    runLoop();
    EXPECT_EQ(log.back(), "a");
    group->taskGroupRunFromTest();
    EXPECT_TRUE(group->parentTaskScheduled());
    root->suspendedIs(false);
    runLoop();
    EXPECT_EQ(log.back(), "b");
  }
  EXPECT_EQ(group->parentTask().taskWorkCountTotal(), 4U) << "a step that runs nobody is no run";
}

TEST_F(TaskGroupTest, GroupsNestAndMayGoAwayAtAnyTime) {
  auto inner = std::make_shared<TaskGroup>("inner", TaskPriority::low, false, group);
  EXPECT_EQ(root->taskGroupCount(), 2U);
  TestTaskPtr last;
  last = std::make_shared<TestTask>(inner, TaskPriority::low, "last", log, [&](TestTask&) {
    inner.reset();
    group.reset();
    last.reset();
  });
  auto queued = member("queued");
  last->scheduleTask();
  queued->scheduleTask();
  queued.reset();
  group.reset();  // lives on in its member
  runLoop();
  EXPECT_THAT(log, ElementsAre("last"));
  EXPECT_EQ(root->taskGroupCount(), 0U);
  group = std::make_shared<TaskGroup>("group", TaskPriority::normal, false, root);
  group->requestSchedulerRun();
  group.reset();
  runLoop();
  EXPECT_EQ(root->runnableTaskCount(), 0U);
}

TEST_F(TaskGroupTest, EnforcesItsPriorityAndTakesOverItsParentsSettings) {
  root->defaultTaskQuantumIs(7);
  group = std::make_shared<TaskGroup>("group", TaskPriority::high, true, root);
  EXPECT_EQ(member("m", 1, TaskPriority::high)->taskQuantum(), 7);
  EXPECT_THAT(failureOf([&] { member("m", 1, TaskPriority::low); }),
              HasSubstr("taskPriority( low ) != taskGroupPriority( high )"));
  EXPECT_THAT(failureOf([&] { TaskGroup("g", TaskPriority::high, true, nullptr); }),
              HasSubstr("Need a TaskScheduler"));
}

TEST_F(TaskGroupTest, AGroupUnderTestYieldsAfterEachMember) {
  auto a = member("a", 3);
  other->scheduleTask();
  other->unscheduleTask();
  a->taskForceYieldInTestIs(true);
  a->scheduleTask();
  other->scheduleTask();
  runLoop();
  EXPECT_THAT(log, ElementsAre("a", "other", "a", "other", "a", "other"));
  EXPECT_TRUE(root->taskForTest("group")->taskForceYieldInTest());
  a.reset();
  EXPECT_FALSE(root->taskForTest("group")->taskForceYieldInTest());
  group->taskGroupForceYieldInTestIs(true);
  EXPECT_TRUE(root->taskForTest("group")->taskForceYieldInTest());
}

TEST_F(TaskGroupTest, RunsWhatAModelSays) {
  SeededRandom random;
  // Of one priority, so that the model is a queue: a pass serves it until the quantum is used up.
  std::vector<TestTaskPtr> members;
  for (int i = 0; i < 8; ++i) {
    members.push_back(member(std::to_string(i)));
    members.back()->body = [](TestTask&) { Platform::fastForwardBy(0.001); };
  }
  std::vector<std::string> queue;
  for (int step = 0; step < 5000; ++step) {
    TestTask& one = *members[random.below(8)];
    const bool queued = std::ranges::count(queue, one.taskName()) > 0;
    switch (random.below(4)) {
      case 0:
      case 1:
        one.scheduleTask();
        if (!queued) queue.push_back(one.taskName());
        break;
      case 2:
        one.unscheduleTask();
        std::erase(queue, one.taskName());
        break;
      default: {
        group->tasksPermittedMultipleRunsIs(random.below(2) == 0);
        const std::size_t passMembers = random.below(4) + 1;
        group->taskGroupQuantumIs(std::chrono::microseconds(1000 * passMembers - 500));
        log.clear();
        group->taskGroupRunFromTest();
        ASSERT_LE(log.size(), passMembers) << "in step " << step;
        ASSERT_TRUE(queue.empty() || !log.empty());
        ASSERT_TRUE(std::equal(log.begin(), log.end(), queue.begin())) << "in step " << step;
        queue.erase(queue.begin(), queue.begin() + static_cast<std::ptrdiff_t>(log.size()));
        ASSERT_EQ(group->parentTaskScheduled(), !queue.empty());
      }
    }
  }
}

}  // namespace
