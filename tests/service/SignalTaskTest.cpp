#include "Tarvo/SignalTask.h"

#include "support/SchedulerFixture.h"

namespace {

using namespace testsupport;
using Tarvo::makeSignalTask, Tarvo::SignalTask, Tarvo::schedulerRootTarvo;

void programsOwn(int) {}

struct SignalTaskTest : SchedulerFixture {
  std::shared_ptr<SignalTask> logs(const std::string& name, const std::vector<int>& signals) {
    return makeSignalTask(root, TaskPriority::normal, name, signals, [=, this](int signal, auto n) {
      log.push_back(fmt::format("{} {} {}", name, signal, n));
    });
  }
  ~SignalTaskTest() override {
    for (const int each : {SIGHUP, SIGUSR1, SIGUSR2, SIGTERM})
      EXPECT_EQ(signal(each, SIG_DFL), SIG_DFL) << each;
  }
};

TEST_F(SignalTaskTest, TellsEachTaskInTurnAlsoWhenOneThrowsAndKeepsTheLoopUntilClosed) {
  auto both = logs("both", {SIGUSR2, SIGUSR1, SIGUSR2}), one = logs("one", {SIGUSR1});
  for (const int signal : {SIGUSR1, SIGUSR1, SIGUSR2, SIGUSR1}) raise(signal);
  runTurns(9);
  EXPECT_THAT(log, testing::UnorderedElementsAre("both 10 3", "both 12 1", "one 10 3"));
  both = one = nullptr;
  const auto body = [&](SignalTask& self, int signal, unsigned) {
    log.push_back(std::to_string(signal));
    raise(signal);  // has to wait for the other
    if (log.size() == 6) return self.close();
    throw 7;
  };
  both = makeSignalTask(root, TaskPriority::low, "throws", {SIGUSR1, SIGHUP}, body);
  for (const int signal : {SIGHUP, SIGUSR1}) raise(signal);
  for (int n = 0; n < 2; ++n) EXPECT_THROW(runLoop(), int);
  runLoop();
  EXPECT_EQ(RunLog(log.begin() + 3, log.end()), (RunLog{"1", "10", "1"}));
}

TEST_F(SignalTaskTest, GivesBackWhatTheProgramHadAndRefusesWhatCannotBeWatched) {
  for (const int bad : {0, SIGRTMAX + 1, SIGKILL, SIGSEGV}) {
    const auto error = errorOf([&] { logs("bad", {SIGUSR1, bad}); });
    EXPECT_THAT(error, HasSubstr(fmt::format("bad: cannot watch signal {}: ", bad)));
  }
  EXPECT_EQ(signal(SIGUSR1, SIG_IGN), SIG_DFL);
  auto first = logs("first", {SIGUSR1, SIGRTMAX});
  signal(SIGUSR1, programsOwn);
  auto second = logs("second", {SIGUSR1});
  raise(SIGUSR1);
  first.reset();
  runTurns(9);
  EXPECT_EQ(log, RunLog{"second 10 1"});
  second.reset();
  EXPECT_EQ(signal(SIGUSR1, SIG_IGN), programsOwn);
  first = logs("first", {SIGUSR1});
  signal(SIGUSR1, SIG_DFL);
  std::thread([] {
    const auto outlives =
        makeSignalTask(schedulerRootTarvo(), TaskPriority::low, "outlives", {SIGHUP}, [] {});
    Tarvo::leFree();
    EXPECT_EQ(signal(SIGHUP, SIG_DFL), SIG_DFL);
  }).join();
}

TEST_F(SignalTaskTest, AForkedChildHasNone) {
  auto task = logs("task", {SIGUSR1, SIGTERM});
  raise(SIGUSR1);
  const auto child = runForked([&] {
    Tarvo::leForkReinit();
    runLoop();  // does not wait for the parent's
    const auto own = logs("own", {SIGUSR1});
    task.reset();
    raise(SIGUSR1);
    runTurns(9);
    return log == RunLog{"own 10 1"} ? raise(SIGTERM) : 1;
  });
  EXPECT_EQ(child.signal, SIGTERM) << child.exitCode;
  raise(SIGTERM);
  runTurns(9);
  EXPECT_EQ(log, (RunLog{"task 10 1", "task 15 1"}));
}

TEST_F(SignalTaskTest, LosesNoneOnAnyThreadWhileOthersComeAndGoAndFork) {
  unsigned told = 0;
  const auto count = [&](SignalTask& self, int signal, unsigned more) {
    if (signal == SIGUSR1 && (told += more) == 2000) self.close();
  };
  const std::vector<int> signals{SIGUSR1, SIGWINCH};
  const auto counts = makeSignalTask(root, TaskPriority::normal, "counts", signals, count);
  SocketPair pair;
  std::jthread reader([&] {
    char byte = 0;
    EXPECT_EQ(read(pair.ends[0], &byte, 1), 1);  // not interrupted
  });
  std::jthread others([&](std::stop_token over) {
    while (!over.stop_requested()) {
      makeSignalTask(schedulerRootTarvo(), TaskPriority::low, "other", signals, [] {});
      Platform::doEventLoop(0.0);
    }
  });
  std::jthread sender([&] {
    for (unsigned n = 1; n <= 2000; ++n) {
      if (n % 200 == 0) pthread_kill(reader.native_handle(), SIGWINCH);
      if (n % 500 == 0) runForked([] { return 0; });
      raise(SIGUSR1);
    }
  });
  runLoop();
  EXPECT_EQ(write(pair.ends[1], "x", 1), 1);
}

}  // namespace
