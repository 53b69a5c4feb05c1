#include "Tarvo/SignalTask.h"

#include "support/SchedulerFixture.h"

namespace {

using namespace testsupport;
using Tarvo::makeSignalTask, Tarvo::SignalTask, Tarvo::schedulerRootTarvo;

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
  const std::vector<int> none{0,      -1,     32,     SIGKILL, SIGSTOP, SIGSEGV,
                              SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS,  SIGRTMAX + 1};
  for (const int bad : none) {
    const auto error = errorOf([&] { logs("bad", std::vector{SIGUSR1, bad}); });
    EXPECT_THAT(error, HasSubstr(fmt::format("bad: cannot watch signal {}: ", bad)));
  }
  EXPECT_THAT(errorOf([&] { logs("bad", {}); }), HasSubstr("no signal to watch"));
  EXPECT_EQ(handlerOf(SIGUSR1), SIG_DFL);
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
    const auto outlives =
        makeSignalTask(schedulerRootTarvo(), TaskPriority::low, "outlives", {SIGHUP}, [] {});
    Tarvo::leFree();
    EXPECT_EQ(handlerOf(SIGHUP), SIG_DFL);
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
  std::thread reader([&] {
    char byte = 0;
    int interrupted = 0;
    while (read(pair.ends[0], &byte, 1) != 1) ++interrupted;
    EXPECT_EQ(interrupted, 0);
  });
  std::atomic<bool> over{false};
  std::thread others([&] {
    while (!over) {
      makeSignalTask(schedulerRootTarvo(), TaskPriority::low, "other", signals, [] {});
      Platform::doEventLoop(0.0);
    }
  });
  std::thread sender([&] {
    for (unsigned n = 1; n <= 2000; ++n) {
      if (n % 200 == 0) pthread_kill(reader.native_handle(), SIGWINCH);
      if (n % 500 == 0) runForked([] { return 0; });
      raise(SIGUSR1);
    }
  });
  runLoop();
  over = true;
  EXPECT_EQ(write(pair.ends[1], "x", 1), 1);
  for (auto* thread : {&others, &sender, &reader}) thread->join();
}

}  // namespace
