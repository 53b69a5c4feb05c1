#ifndef TARVO_TESTS_SUPPORT_SCHEDULERFIXTURE_H
#define TARVO_TESTS_SUPPORT_SCHEDULERFIXTURE_H

#include "Tarvo/TaskScheduler.h"
#include "Tarvo/TaskSchedulerHistory.h"
#include "support/LoopFixture.h"

namespace testsupport {

using Tarvo::TaskPriority;

/// A task that logs its name and then does what the test wants.
template <typename Base>
struct Logged : Base {
  using Body = std::function<void(Logged&)>;

  Logged(std::shared_ptr<Tarvo::TaskScheduler> scheduler, TaskPriority priority,
         const std::string& name, RunLog& runLog, Body doNext = nullptr)
      : Base(std::move(scheduler), priority, name), log(runLog), body(std::move(doNext)) {}

  void taskExecute() override {
    log.push_back(this->taskName());
    if (const Body now = body) now(*this);  // the body may replace itself
  }
  void handleTaskBusy() override {
    if (onBusy) onBusy(*this);
  }
  using Base::handleDestroy;

  RunLog& log;
  Body body;
  Body onBusy;
};

using TestTask = Logged<Tarvo::Task>;
using TestTaskPtr = std::shared_ptr<TestTask>;

/// A root of its own on the thread's loop; leaves no task behind.
struct SchedulerFixture : LoopFixture {
  ~SchedulerFixture() override {
    EXPECT_EQ(Tarvo::allocationCount<TestTask>().objects, 0);
    EXPECT_EQ(root.use_count(), 1);
  }
  TestTaskPtr make(const std::string& name, TaskPriority priority = TaskPriority::normal,
                   TestTask::Body body = nullptr,
                   std::shared_ptr<Tarvo::TaskScheduler> scheduler = nullptr) {
    if (scheduler == nullptr) scheduler = root;
    return std::allocate_shared<TestTask>(Tarvo::Allocator<TestTask>(), scheduler, priority, name,
                                          log, std::move(body));
  }
  static void runLoop() { Platform::doEventLoop(); }
  static void runTurns(int count) {
    for (; count > 0; --count) Platform::doEventLoop(0.0);
  }
  template <typename Done>
  static void runUntil(Done done) {
    for (int turn = 0; !done(); ++turn) {
      ASSERT_LT(turn, 100'000) << "it never comes";
      Platform::doEventLoop(0.0);
    }
  }
  /// The display names of the history's events, the oldest first.
  RunLog events() const {
    RunLog names;
    for (const auto& event : root->history().events()) {
      names.insert(names.begin(), event.eventTypeDisplay() + " " + event.name.text());
    }
    return names;
  }
  std::shared_ptr<Tarvo::TaskSchedulerRoot> root = Tarvo::schedulerRootTarvoNonShared("root");
};

}  // namespace testsupport

#endif
