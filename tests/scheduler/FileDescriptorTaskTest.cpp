#include <sys/epoll.h>

#include "support/SchedulerFixture.h"

namespace {
bool pollRefuses = false;
int polls = 0, registrations = 0;
}  // namespace

/// Stands before the C library's for the library too. The kernel refuses when a process has lowered
/// its limit of descriptors, which the sanitizers do not bear.
extern "C" [[gnu::visibility("default")]] int poll(pollfd* states, nfds_t count, int timeout) {
  ++polls;
  if (pollRefuses) return -1;
  return static_cast<int>(syscall(SYS_poll, states, count, timeout));
}

extern "C" [[gnu::visibility("default")]] int epoll_ctl(int epoll, int operation, int fd,
                                                        epoll_event* wanted) noexcept {
  ++registrations;
  return static_cast<int>(syscall(SYS_epoll_ctl, epoll, operation, fd, wanted));
}

namespace {

using namespace testsupport;

/// Logs its name and the direction; reads `appetite` bytes a run.
struct TestFd : Tarvo::FileDescriptorTask {
  TestFd(const std::shared_ptr<Tarvo::TaskScheduler>& scheduler, const std::string& name,
         RunLog& runLog)
      : FileDescriptorTask(scheduler, TaskPriority::normal, name), log(runLog) {}
  void taskExecuteReadable() override {
    std::array<char, 9> bytes;
    const auto count = read(taskWatchFd(), bytes.data(), appetite);
    if (count > 0) got.append(bytes.data(), static_cast<std::size_t>(count));
    run(" read", onRead);
  }
  void taskExecuteWritable() override { run(" write", onWrite); }
  void readFdEvent(int number) override {
    if (std::exchange(refuses, false)) throw std::runtime_error("not now");
    FileDescriptorTask::readFdEvent(number);
  }
  void handleTaskBusy() override {
    if (const auto action = std::exchange(onBusy, nullptr)) action();
  }
  void run(const char* direction, std::function<void()> action) {
    log.push_back(taskName() + direction);
    if (action) action();
  }
  RunLog& log;
  std::size_t appetite = 1;
  bool refuses = false;
  std::string got;
  std::function<void()> onRead, onWrite, onBusy;
};

struct FdTaskTest : SchedulerFixture {
  ~FdTaskTest() override { pollRefuses = false; }
  std::shared_ptr<TestFd> makeFd(const std::string& name, int number = -1) {
    const auto made = std::make_shared<TestFd>(root, name, log);
    made->taskWatchFdIs(number);
    return made;
  }
  /// Runs the loop until several passes bring nothing new.
  void settle() {
    for (int quiet = 0; quiet < 4; ++quiet) {
      const auto before = log.size();
      Platform::doEventLoop(0.0);
      if (log.size() != before || root->runnableTaskCount() > 0) quiet = -1;
      ASSERT_LT(log.size(), 10000U) << "a busy loop";
    }
  }
  std::string taken() {
    settle();
    return std::exchange(task->got, "");
  }
  void send(const SocketPair& to, const std::string& text) {
    ASSERT_EQ(write(to.ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  /// Enough that reads are put off.
  void keepBusy(const TestTask::Body& body) {
    busy.clear();
    while (busy.size() < 40) busy.push_back(make("busy", TaskPriority::normal, body));
    for (const auto& each : busy) each->scheduleTask();
  }
  void endBusy() {
    for (const auto& each : busy) each->unscheduleTask();
  }
  SocketPair pair, second;
  const int fd = pair.ends[0];
  std::deque<TestTaskPtr> busy;
  Handler plain{log, "plain"};
  std::shared_ptr<Platform::FdControl> control = Platform::getFdControl(&plain);  // by levels
  std::shared_ptr<TestFd> task = makeFd("t");
};

TEST_F(FdTaskTest, DirectionsAreTasksOfTheirOwn) {
#define FIGURES(Way)                                                                     \
  (std::vector<double>{static_cast<double>(task->taskWorkCount##Way##Total()),           \
                       task->taskWorkCount##Way##DecayAvg(),                             \
                       static_cast<double>(task->taskWorkCount##Way##HighWaterMark()),   \
                       static_cast<double>(task->taskWorkPending##Way()),                \
                       static_cast<double>(task->taskWorkPending##Way##HighWaterMark()), \
                       static_cast<double>(task->taskRunCount##Way())})
  EXPECT_THAT(failureOf([&] { task->taskShouldYield(); }), HasSubstr("no body is running"));
  EXPECT_THAT(failureOf([&] { task->taskWorkPendingWritableIs(1); }), HasSubstr("not created"));
  EXPECT_THAT(failureOf([&] { task->taskWorkCountWritableInc(1); }), HasSubstr("not created"));
  EXPECT_THAT(FIGURES(Writable), testing::Each(0));
  task->taskStatsNameIs("x");
  task->taskTestYieldRatioIs(2);
  task->includeInCompletedTaskIs(false);
  task->scheduleTaskWritable();
  task->onWrite = [&] {
    task->taskWorkCountInc(7);
    task->taskWorkPendingIs(5);
    EXPECT_FALSE(task->taskShouldYield());
    EXPECT_TRUE(task->taskShouldYield());
  };
  settle();
  task->taskWorkCountReadableInc(4);
  for (const unsigned pending : {9U, 2U}) task->taskWorkPendingReadableIs(pending);
  EXPECT_THAT(FIGURES(Readable), ElementsAre(4, 4, 4, 2, 9, 0));
  EXPECT_THAT(FIGURES(Writable), ElementsAre(7, 7, 7, 5, 5, 1));
  task->taskForceYieldInTestIs(true);
  task->taskQuantumIs(123);
  task->onWrite = [&] { EXPECT_TRUE(task->taskShouldYield()); };
  task->scheduleTaskWritable();
  settle();
  EXPECT_EQ(task->taskTestYieldRatio() + task->taskQuantum(), 124);
  EXPECT_FALSE(task->includeInCompletedTask());
  task.reset();
  for (const auto* name : {"x:read", "x:write"}) EXPECT_FALSE(root->completedTaskStatForTest(name));
}

TEST_F(FdTaskTest, ReadsOncePerRunAsLongAsSomethingIsLeft) {
  task->taskWatchFdIs(fd);
  send(pair, "abc");
  int hesitates = 2;
  task->onRead = [&] { task->appetite = hesitates-- > 0 ? 0 : 1; };
  EXPECT_EQ(taken(), "abc");
  EXPECT_EQ(log.size(), 5U) << "two did nothing";
  task->taskSuspendedIs(true);
  send(pair, "d");
  root->clearHistory();
  settle();
  EXPECT_THAT(events(), ElementsAre("scheduleSus t:read")) << "told once, not in every turn";
  task->taskSuspendedIs(false);
  EXPECT_EQ(taken(), "d");
}

TEST_F(FdTaskTest, ALongQueueDelaysItByLittle) {
  SocketPair third;
  const auto group = std::make_shared<Tarvo::TaskGroup>("g", TaskPriority::normal, false, root);
  const auto member = std::make_shared<TestFd>(group, "member", log);
  const auto dropped = makeFd("dropped", third.ends[0]);
  task->taskWatchFdIs(fd);
  member->taskWatchFdIs(second.ends[0]);
  for (const SocketPair* each : {&pair, &second, &third}) send(*each, "abc");
  Platform::doEventLoop(0.0);
  dropped->onRead = [&] { dropped->taskWatchFdDel(); };
  const auto again = [](TestTask& self) { self.scheduleTask(); };
  keepBusy(again);
  runUntil([&] { return log.size() >= 200; });
  EXPECT_EQ(task->got, "abc");
  EXPECT_EQ(member->got, "abc");
  EXPECT_EQ(dropped->got, "a") << "what was put off is forgotten";
  // When those that it was put off for are gone, nothing less urgent overtakes it.
  task->onRead = [&] { endBusy(); };
  const auto low = make("low", TaskPriority::low, again);
  low->scheduleTask();
  send(pair, "de");
  runUntil([&] { return task->got.size() == 5; });
  EXPECT_LE(std::ranges::count(log, "low"), 2);
  low->unscheduleTask();
}

TEST_F(FdTaskTest, IsAskedForAtTheLastStep) {
  task->taskWatchFdIs(fd);
  for (const bool suspends : {false, true}) {
    task->scheduleTaskReadable();
    keepBusy([&](TestTask&) {
      if (task->got.size() != 1) return;
      endBusy();
      root->suspendedIs(suspends);
    });
    send(pair, "abc");
    runTurns(20);
    root->suspendedIs(false);
    EXPECT_EQ(taken(), "abc");
  }
}

TEST_F(FdTaskTest, FindsWhatWasReportedToOthersOrInVain) {
  const auto other = makeFd("other");
  other->taskSuspendedIs(true);
  for (const bool shared : {false, true}) {
    if (shared) other->taskWatchFdIs(fd);
    for (const bool refused : {false, true}) {
      pollRefuses = refused;
      task->taskWatchFdIs(fd);
      task->taskWatchReadableIs(false);
      send(pair, "abc");
      EXPECT_EQ(taken(), "");
      task->taskWatchReadableIs(true);
      EXPECT_EQ(taken(), "abc") << "watched again";
      task->taskSuspendedIs(true);
      send(pair, "def");
      EXPECT_EQ(taken(), "");
      task->taskSuspendedIs(false);
      EXPECT_EQ(taken(), "def") << "resumed";
      task->refuses = true;
      send(pair, "ghi");
      EXPECT_THROW(settle(), std::runtime_error);
      EXPECT_EQ(taken(), "ghi") << "refused once";
      task->taskWatchFdDel();
    }
  }
}

TEST_F(FdTaskTest, WhoeverJoinsIsToldOfWhatIsThere) {
  task->taskWatchFdIs(fd);
  send(pair, "abcdef");
  Platform::doEventLoop(0.0);  // the one edge is used up
  const auto other = makeFd("other", fd);
  settle();
  EXPECT_FALSE(other->got.empty());
  registrations = 0;
  std::deque<std::shared_ptr<TestFd>> many;
  while (many.size() < 50) many.push_back(makeFd("many", fd));
  EXPECT_LE(registrations, 100) << "the kernel is told once more, not of each again";
}

TEST_F(FdTaskTest, ARefusalIsHeardAlsoWhenTheFileWasClosed) {
  SocketPair closed;
  task->taskWatchFdIs(closed.ends[0]);
  task->onBusy = [&] {
    close(std::exchange(closed.ends[0], -1));
    throw 7;
  };
  send(closed, "x");
  EXPECT_THROW(settle(), int);
  EXPECT_EQ(task->taskWatchFd(), -1);
}

TEST_F(FdTaskTest, WhoHadNothingLeftIsAskedForWhenTheSliceEnds) {
  const auto other = makeFd("other", second.ends[0]);
  task->taskWatchFdIs(fd);
  const auto low = make("low", TaskPriority::low);
  const auto again =
      make("again", TaskPriority::normal, [](TestTask& self) { self.scheduleTask(); });
  const TestClock clock(100);  // so that there are slices with an end
  const auto pollsFor = [&](const char* text) {
    for (const SocketPair* each : {&pair, &second}) send(*each, text);
    log.clear();
    polls = 0;
    Platform::doEventLoop(0.001);
    return polls;
  };
  pollsFor("a");
  EXPECT_EQ(pollsFor("b"), 1);
  low->scheduleTask();
  pollsFor("cd");
  EXPECT_EQ(log.back(), "low") << "it overtakes nothing that is left";
  again->scheduleTask();
  pollsFor("ef");
  again->unscheduleTask();
  EXPECT_EQ(task->got, "abcdef");
  const auto lastRead = std::ranges::find(log.rbegin(), log.rend(), "t read");
  EXPECT_LT(std::ranges::count(lastRead, log.rend(), "again"), 200) << "a slice or two";
}

TEST_F(FdTaskTest, MayBeDroppedByItsHook) {
  const std::array<std::function<void(TestFd&)>, 4> withdrawals = {
      [](TestFd& each) { each.taskWatchFdDel(); }, [](TestFd& each) { each.taskSuspendedIs(true); },
      [](TestFd& each) { each.taskWatchReadableIs(false); },
      [this](TestFd& each) { each.taskWatchFdIs(second.ends[0]); }};
  for (const auto& withdraw : withdrawals) {
    task = makeFd("t", fd);
    task->scheduleTaskReadable();
    task->onBusy = [&] { task.reset(); };
    withdraw(*task);
    EXPECT_EQ(task, nullptr);
  }
}

TEST_F(FdTaskTest, AFileThatItsBodyClosedIsNotMixedUpWithTheNext) {
  control->setReads(false);
  for (const auto& [refused, byLevels] : {std::pair(false, false), {true, false}, {false, true}}) {
    const SocketPair closed;
    const int number = closed.ends[0];
    pollRefuses = refused;
    task->appetite = 9;
    task->taskWatchFdIs(number);
    if (byLevels) control->setFd(number);
    task->onRead = [&] { ASSERT_EQ(dup2(second.ends[0], number), number); };
    send(closed, "x");
    send(second, "secret");
    EXPECT_EQ(taken(), "x");
    control->delFd();
  }
}

TEST_F(FdTaskTest, WhoeverIsForgottenMayDoAnything) {
  const auto third = makeFd("third");
  const int far = fcntl(fd, F_DUPFD, 900);
  std::shared_ptr<TestFd> joining;
  const std::array<std::function<void()>, 6> reactions = {
      [&] { third->taskWatchFdIs(far); }, [&] { task.reset(); }, [&] { joining.reset(); },
      [&] { joining->taskWatchFdIs(far); }, [] { throw std::runtime_error("bad hook"); }};
  for (std::size_t i = 0; i < reactions.size(); ++i) {
    const SocketPair closed, next;
    const int number = closed.ends[0];
    task = makeFd("t", number);
    third->taskWatchFdIs(number);
    joining = makeFd("joining");
    task->scheduleTaskReadable();
    ASSERT_EQ(dup2(next.ends[0], number), number);
    task->onBusy = reactions[i];
    try {
      joining->taskWatchFdIs(number);
    } catch (const std::runtime_error&) {
      EXPECT_EQ(joining->taskWatchFd(), -1);
      joining->taskWatchFdIs(number);
    }
    send(next, "y");
    settle();
    EXPECT_EQ(third->taskWatchFd(), i == 0 ? far : -1);
    EXPECT_TRUE(joining == nullptr || joining->got == "y") << i;
    EXPECT_TRUE(task == nullptr || (task->taskWatchFd() == -1 && !task->taskScheduled())) << i;
  }
  ASSERT_EQ(dup2(second.ends[0], far), far);
  joining->taskWatchFdIs(far);
  ASSERT_EQ(dup2(fd, far), far);
  joining->taskWatchFdIs(far);
  send(pair, "z");
  settle();
  EXPECT_EQ(joining->got, "yz") << "the same number, and another file";
  close(far);
}

TEST_F(FdTaskTest, ADrainedDescriptorIsNotAskedButReportsWhatComes) {
  EXPECT_THROW(task->taskReadDrained(), Tarvo::AssertException);
  task->onRead = [&] { task->taskReadDrained(); };
  task->taskWatchFdIs(fd);
  send(pair, "ab");
  EXPECT_EQ(taken(), "a") << "the kernel was asked";
  task->onRead = nullptr;
  send(pair, "c");
  EXPECT_EQ(taken(), "bc");
}

TEST_F(FdTaskTest, SharersOfAClosedFileHarmNobody) {
  const auto other = makeFd("other"), innocent = makeFd("innocent", second.ends[0]);
  auto dropped = makeFd("dropped");
  innocent->taskSuspendedIs(true);
  {
    const SocketPair closed;
    for (const auto& each : {task, other, dropped}) each->taskWatchFdIs(closed.ends[0]);
    control->setFd(closed.ends[0]);
  }
  dropped.reset();
  control->setFd(second.ends[0]);  // the others must watch by edges now, which is refused
  EXPECT_EQ(task->taskWatchFd(), -1);
  EXPECT_EQ(other->taskWatchFd(), -1);
  plain.action = [&] { control->setReads(log.size() < 5); };
  send(second, "abc");
  settle();
  EXPECT_GE(std::ranges::count(log, fmt::format("plain read {}", second.ends[0])), 3);
}

}  // namespace
