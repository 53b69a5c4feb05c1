#include "Tarvo/ChildProcess.h"

#include "support/SchedulerFixture.h"
#include "support/Test.h"

namespace {
int processesRefused = 0;  // the which-th of the next ones cannot be opened
}  // namespace

/// Stands before the C library's for the library too.
extern "C" [[gnu::visibility("default")]] int pidfd_open(pid_t pid, unsigned flags) noexcept {
  if (processesRefused > 0 && --processesRefused == 0) return errno = EMFILE, -1;
  static const auto real =
      reinterpret_cast<int (*)(pid_t, unsigned)>(dlsym(RTLD_NEXT, "pidfd_open"));
  return real(pid, flags);
}

namespace {

using namespace testsupport;
using Tarvo::ChildCommand, Tarvo::ChildStream;

struct TestChild : Tarvo::ChildProcess {
  TestChild(const std::shared_ptr<Tarvo::TaskScheduler>& scheduler, RunLog& runLog)
      : ChildProcess(scheduler, TaskPriority::normal, "child"), log(runLog) {}
  void taskExecuteEnd(const Tarvo::ChildEnd& end) override {
    EXPECT_FALSE(running() || kill(0));
    log.push_back(end.toString());
    if (onEnd) onEnd(end);
  }
  RunLog& log;
  std::function<void(const Tarvo::ChildEnd&)> onEnd;
};

ChildCommand shell(const String& script) { return {.argv = {"sh", "-c", script}}; }

/// Runs until its input ends.
ChildCommand reader() { return {.argv = {"cat"}, .in = ChildStream::pipe()}; }

/// Reads up to the end of the pipe, which it closes.
String all(int fd) {
  std::ifstream file("/dev/fd/" + std::to_string(fd));
  close(fd);
  return {std::istreambuf_iterator(file), {}};
}

struct ChildProcessTest : SchedulerFixture {
  ~ChildProcessTest() override {
    child.reset();
    EXPECT_TRUE(waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD) << "a child is left";
  }
  std::shared_ptr<TestChild> child = std::make_shared<TestChild>(root, log);
};

TEST_F(ChildProcessTest, EachEndIsARunAndMayStartTheNext) {
  Platform::setFastForward(true);
  child->onEnd = [&](const auto& end) {
    if (log.size() == 1) {
      EXPECT_GT(end.usage.ru_maxrss, 0);
      child->start(shell("kill -9 $$"));
    } else if (log.size() == 2) {
      child->start(reader());
      child->scheduleTask();
      EXPECT_TRUE(child->kill(SIGTERM));
    }
  };
  child->start(shell("exit 3"));
  child->taskSuspendedIs(true);
  child->taskSuspendedIs(false);  // which gives a run
  runLoop();
  EXPECT_THAT(log, ElementsAre("exited with 3", "killed by signal 9", "killed by signal 15"));
}

TEST_F(ChildProcessTest, HasTheStreamsAndTheSurroundingsOfItsCommandAndNothingElse) {
  const int leaked = dup(0);
  sigset_t usr1{};
  sigaddset(&usr1, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &usr1, nullptr);
  const auto before = signal(SIGINT, SIG_IGN);
  auto command = shell(
      "cat; echo $X $PWD; set -- /proc/self/fd/*; echo $#; echo oops >&2;"
      "grep -cE '(SigBlk|SigIgn):.0*$' /proc/self/status");
  command.environment = {"PATH=/usr/bin:/bin", "X=value"};
  command.folder = "/usr";
  command.in = command.out = command.err = ChildStream::pipe();
  command.newProcessGroup = true;
  child->start(command);
  EXPECT_EQ(getpgid(child->pid()), child->pid());
  const int in = child->takeIn();
  EXPECT_EQ(child->takeIn(), -1);
  EXPECT_EQ(write(in, "in\n", 3), 3);
  close(in);
  EXPECT_EQ(all(child->takeOut()), "in\nvalue /usr\n4\n2\n");
  EXPECT_EQ(all(child->takeErr()), "oops\n");
  runLoop();
  signal(SIGINT, before);
  pthread_sigmask(SIG_UNBLOCK, &usr1, nullptr);
  close(leaked);
  child->start({.argv = {"grep", "Linux"},
                .in = ChildStream::file("/proc/version"),
                .out = ChildStream::file("/dev/null")});
  runLoop();
  EXPECT_EQ(log.back(), "exited with 0");
}

TEST_F(ChildProcessTest, StandardDescriptorsThatTheParentLacksDisturbNothing) {
  const auto result = runForked([&] {
    auto own = std::make_shared<TestChild>(root, log);
    runTurns(1);  // with descriptors of its own
    const int out = fcntl(1, F_DUPFD, 9);
    for (const int fd : {0, 1, 2}) close(fd);
    auto command = shell("cat; echo out; echo err >&2");
    command.in = ChildStream::null();
    command.out = ChildStream::descriptor(out);
    command.err = ChildStream::pipe();
    own->start(command);
    return all(own->takeErr()) == "err\n" ? 0 : 1;
  });
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "out\n");
}

TEST_F(ChildProcessTest, WhatCannotBeHadIsToldAndLeavesNothing) {
  const auto refused = [&](const ChildCommand& command) {
    return errorOf([&] { child->start(command); });
  };
  auto command = shell("exit");
  command.argv[0] = "no-such-program";
  command.in = command.err = ChildStream::pipe();
  EXPECT_THAT(refused(command), HasSubstr("cannot start no-such-program: No such file"));
  command.folder = "/dev/null";
  EXPECT_THAT(refused(command), HasSubstr("cannot enter /dev/null: Not a directory"));
  command.out = ChildStream::file("/usr");
  EXPECT_THAT(refused(command), HasSubstr("cannot open /usr: Is a directory"));
  for (const int which : {1, 2}) {
    processesRefused = which;
    EXPECT_THAT(refused(reader()), HasSubstr("Too many open files"));
  }
}

TEST_F(ChildProcessTest, WhoeverDropsItLeavesNoZombie) {
  runTurns(1);
  const long opened = openDescriptors();
  child->start(reader());
  const pid_t pid = child->pid();
  const int in = child->takeIn();
  child.reset();
  EXPECT_EQ(::kill(pid, 0), 0);
  close(in);
  while (::kill(pid, 0) == 0 || openDescriptors() != opened) std::this_thread::yield();
  child = std::make_shared<TestChild>(root, log);
  child->onEnd = [&](const auto&) { child.reset(); };
  child->start(shell("exit"));
  runLoop();
  EXPECT_EQ(child, nullptr);
}

TEST_F(ChildProcessTest, AnEndThatOthersWaitedForIsUnknown) {
  child->start(shell("exit"));
  EXPECT_EQ(waitpid(child->pid(), nullptr, 0), child->pid());
  runLoop();
  EXPECT_EQ(log, RunLog{"ended, how is not known"});
}

TEST_F(ChildProcessTest, AForkLeavesItToTheParent) {
  child->start(reader());
  EXPECT_EQ(runForked([&] {
              if (child->running() || child->kill(SIGKILL)) return 1;
              runTurns(3);
              return static_cast<int>(log.size());
            }).exitCode,
            0);
  close(child->takeIn());
  runLoop();
  EXPECT_THAT(log, ElementsAre("exited with 0"));
}

}  // namespace
