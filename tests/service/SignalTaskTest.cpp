#include "Tarvo/SignalTask.h"

#include "support/SchedulerFixture.h"

namespace {

using namespace testsupport;
using Tarvo::makeSignalTask, Tarvo::SignalTask;

void programsOwn(int) {}

auto handlerOf(int signal) {
  struct sigaction now {};
  sigaction(signal, nullptr, &now);
  return now.sa_handler;
}

struct SignalTaskTest : SchedulerFixture {
  std::shared_ptr<SignalTask> logs(const std::string& name, const std::vector<int>& signals) {
    return makeSignalTask(root, TaskPriority::normal, name, signals, [=, this](int signal, auto n) {
      log.push_back(fmt::format("{} {} {}", name, signal, n));
    });
  }
  ~SignalTaskTest() override {
    for (const int signal : {SIGHUP, SIGUSR1, SIGUSR2, SIGTERM})
      EXPECT_EQ(handlerOf(signal), SIG_DFL) << signal;
  }
};

TEST_F(SignalTaskTest, TellsEachTaskInTurnAlsoWhenOneThrowsAndKeepsTheLoopUntilClosed) {
  const auto both = logs("both", {SIGUSR2, SIGUSR1, SIGUSR2}), one = logs("one", {SIGUSR1});
  for (const int signal : {SIGUSR1, SIGUSR1, SIGUSR2, SIGUSR1}) raise(signal);
  runTurns(9);
  EXPECT_THAT(log, testing::UnorderedElementsAre("both 10 3", "both 12 1", "one 10 3"));
  EXPECT_EQ(both->taskWorkCountTotal(), 4U);
  one->close();
  both->close();
  const auto task = makeSignalTask(root, TaskPriority::low, "throws", {SIGUSR1, SIGHUP},
                                   [&](SignalTask& self, int signal, unsigned) {
                                     log.push_back(std::to_string(signal));
                                     raise(signal);  // has to wait for the other
                                     if (log.size() == 6) return self.close();
                                     throw 7;
                                   });
  for (const int signal : {SIGHUP, SIGUSR1}) raise(signal);
  for (int n = 0; n < 2; ++n) EXPECT_THROW(Platform::doEventLoop(), int);
  Platform::doEventLoop();
  EXPECT_EQ(RunLog(log.begin() + 3, log.end()), (RunLog{"1", "10", "1"}));
}

TEST_F(SignalTaskTest, GivesBackWhatTheProgramHadAndRefusesWhatCannotBeWatched) {
  for (const int bad : {0, -1, 32, SIGRTMAX + 1, SIGKILL, SIGSTOP, SIGSEGV, SIGBUS, SIGFPE, SIGILL,
                        SIGTRAP, SIGSYS})
    EXPECT_THAT(errorOf([&] {
                  logs("bad", {SIGUSR1, bad});
                }),
                HasSubstr(fmt::format("bad: cannot watch signal {}: ", bad)));
  EXPECT_THAT(errorOf([&] { logs("bad", {}); }), HasSubstr("no signal to watch"));
  EXPECT_EQ(handlerOf(SIGUSR1), SIG_DFL);
  signal(SIGUSR1, SIG_IGN);
  auto first = logs("first", {SIGUSR1, SIGRTMAX});
  signal(SIGUSR1, programsOwn);
  auto second = logs("second", {SIGUSR1});
  raise(SIGUSR1);
  first.reset();
  runTurns(9);
  EXPECT_EQ(log, RunLog{"second 10 1"});
  second.reset();
  EXPECT_EQ(handlerOf(SIGUSR1), programsOwn);
  first = logs("first", {SIGUSR1});
  signal(SIGUSR1, SIG_DFL);
  std::thread([] {
    const auto outlives = makeSignalTask(Tarvo::schedulerRootTarvo(), TaskPriority::low,
                                         "outlives its loop", {SIGHUP}, [] {});
    Tarvo::leFree();
    EXPECT_EQ(handlerOf(SIGHUP), SIG_DFL);
  }).join();
}

TEST_F(SignalTaskTest, AForkedChildHasNone) {
  auto task = logs("task", {SIGUSR1, SIGTERM});
  raise(SIGUSR1);
  const auto child = runForked([&] {
    Tarvo::leForkReinit();
    Platform::doEventLoop();  // does not wait for the parent's
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
  constexpr unsigned all = 2000;
  unsigned told = 0;
  const auto counts = makeSignalTask(root, TaskPriority::normal, "counts", {SIGUSR1, SIGUSR2},
                                     [&](SignalTask& self, int signal, unsigned count) {
                                       if (signal == SIGUSR1 && (told += count) == all)
                                         self.close();
                                     });
  SocketPair pair;
  std::thread reader([&] {
    char byte = 0;
    int interrupted = 0;
    while (read(pair.ends[0], &byte, 1) != 1) ++interrupted;
    EXPECT_EQ(interrupted, 0);
  });
  std::atomic<bool> over{false};
  std::thread others([&] {
    while (!over) {
      const auto made = makeSignalTask(Tarvo::schedulerRootTarvo(), TaskPriority::low, "other",
                                       {SIGUSR1, SIGUSR2}, [] {});
      Platform::doEventLoop(0.0);
    }
  });
  std::thread sender([&] {
    for (unsigned n = 1; n <= all; ++n) {
      if (n % 200 == 0) pthread_kill(reader.native_handle(), SIGUSR2);
      if (n % 500 == 0) runForked([] { return 0; });
      raise(SIGUSR1);
    }
  });
  Platform::doEventLoop();
  over = true;
  EXPECT_EQ(write(pair.ends[1], "x", 1), 1);
  for (auto* thread : {&others, &sender, &reader}) thread->join();
}

}  // namespace
