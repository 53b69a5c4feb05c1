#include <poll.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <deque>

#include "support/SchedulerFixture.h"

namespace {
bool pollRefuses = false;
int registrations = 0;
}  // namespace

/// Stands before the C library's for the library too. The kernel refuses when a process has lowered
/// its limit of descriptors, which the sanitizers do not bear.
extern "C" [[gnu::visibility("default")]] int poll(pollfd* states, nfds_t count, int timeout) {
  if (!pollRefuses) return static_cast<int>(syscall(SYS_poll, states, count, timeout));
  errno = EINVAL;
  return -1;
}

extern "C" [[gnu::visibility("default")]] int epoll_ctl(int set, int what, int fd,
                                                        epoll_event* event) noexcept {
  ++registrations;
  return static_cast<int>(syscall(SYS_epoll_ctl, set, what, fd, event));
}

namespace {

using namespace testsupport;

/// Logs its name and the direction; reads `appetite` bytes a run.
struct TestFd : Tarvo::FileDescriptorTask {
  TestFd(const std::shared_ptr<Tarvo::TaskScheduler>& scheduler, const std::string& name,
         RunLog& runLog)
      : FileDescriptorTask(scheduler, TaskPriority::normal, name), log(runLog) {}
  void taskExecuteReadable() override {
    std::array<char, 64> bytes;
    const auto count = read(taskWatchFd(), bytes.data(), std::min(appetite, bytes.size()));
    if (count > 0) got.append(bytes.data(), static_cast<std::size_t>(count));
    run(" read", onRead);
  }
  void taskExecuteWritable() override { run(" write", onWrite); }
  void readFdEvent(int fd) override {
    if (std::exchange(refuses, false)) throw std::runtime_error("not now");
    FileDescriptorTask::readFdEvent(fd);
  }
  void handleTaskBusy() override {
    if (const auto action = std::exchange(onBusy, nullptr)) action();
  }
  void run(const char* direction, std::function<void()> action) {
    log.push_back(taskName() + direction);
    if (action) action();
  }
  RunLog& log;
  std::size_t appetite = 0;
  bool refuses = false;
  std::string got;
  std::function<void()> onRead, onWrite, onBusy;
};

struct FdTaskTest : SchedulerFixture {
  std::shared_ptr<TestFd> makeFd(const std::string& name) {
    return std::make_shared<TestFd>(root, name, log);
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
  void send(const SocketPair& to, const std::string& text) {
    ASSERT_EQ(write(to.ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  SocketPair pair, second;
  std::shared_ptr<TestFd> task = makeFd("t");
};

TEST_F(FdTaskTest, DirectionsAreTasksOfTheirOwn) {
  EXPECT_THAT(failureOf([&] { task->taskWorkCountWritableInc(1); }),
              HasSubstr("FileDescriptorTask::taskWorkCountWritableInc() WriteTask not created by "
                        "taskWatchWritableIs( true )"));
  EXPECT_THAT(failureOf([&] { task->taskShouldYield(); }), HasSubstr("no body is running"));
  task->taskQuantumIs(std::chrono::milliseconds(3));
  task->taskStatsNameIs("x");
  task->taskTestYieldRatioIs(2);
  task->scheduleTaskWritable();
  EXPECT_TRUE(task->taskScheduledWritable());
  EXPECT_EQ(root->taskForTest("t:write")->taskStatsName(), "x:write");
  EXPECT_EQ(root->taskForTest("t:write")->taskQuantum(), 3'000'000);
  EXPECT_EQ(root->taskForTest("t:write")->taskTestYieldRatio(), 2);
  task->onWrite = [&] {
    task->taskWorkCountInc(7);
    EXPECT_FALSE(task->taskShouldYield());
    EXPECT_TRUE(task->taskShouldYield());
  };
  settle();
  EXPECT_EQ(task->taskWorkCountWritableTotal(), 7U);
  EXPECT_EQ(task->taskWorkCountReadableTotal(), 0U);
  EXPECT_EQ(std::ranges::count(events(), "busy t"), 1);
  EXPECT_EQ(std::ranges::count(events(), "idle t"), 1);
}

TEST_F(FdTaskTest, ReadsOncePerRunAsLongAsSomethingIsLeft) {
  task->taskWatchFdIs(pair.ends[0]);
  settle();
  send(pair, "abc");
  int hesitates = 2;
  task->onRead = [&] { task->appetite = hesitates-- > 0 ? 0 : 1; };
  settle();
  EXPECT_EQ(task->got, "abc");
  EXPECT_EQ(log.size(), 6U) << "two did nothing, and the last appetite came one run late";
  task->taskSuspendedIs(true);
  send(pair, "d");
  root->clearHistory();
  settle();
  EXPECT_THAT(events(), ElementsAre("scheduleSus t:read")) << "told once, not in every turn";
  task->taskSuspendedIs(false);
  settle();
  EXPECT_EQ(task->got, "abcd");
  task->onRead = [&] { throw std::runtime_error("bad"); };
  task->appetite = 0;
  send(pair, "e");
  EXPECT_THROW(settle(), std::runtime_error);
  task->onRead = nullptr;
  task->appetite = 1;
  settle();
  EXPECT_EQ(task->got, "abcde");
  task->onRead = [&] { task->taskWatchFdIs(second.ends[0]); };
  send(second, "f");
  send(pair, "g!");
  settle();
  EXPECT_EQ(task->got, "abcdegf");
}

TEST_F(FdTaskTest, ALongQueueDelaysItByLittle) {
  constexpr std::size_t others = 40;
  std::deque<TestTaskPtr> busy;
  while (busy.size() < others) {
    busy.push_back(make("busy", TaskPriority::normal, [](TestTask& self) { self.scheduleTask(); }));
  }
  const auto group = std::make_shared<Tarvo::TaskGroup>("g", TaskPriority::normal, false, root);
  const auto member = std::make_shared<TestFd>(group, "member", log);
  const auto dropped = makeFd("dropped");
  SocketPair third;
  const std::array<std::pair<TestFd*, SocketPair*>, 3> all = {
      {{task.get(), &pair}, {member.get(), &second}, {dropped.get(), &third}}};
  for (const auto& [fd, connection] : all) {
    fd->appetite = 1;
    fd->taskWatchFdIs(connection->ends[0]);
    send(*connection, "abc");
  }
  Platform::doEventLoop(0.0);
  for (const auto& other : busy) other->scheduleTask();
  dropped->onRead = [&] { dropped->taskWatchFdDel(); };
  while (log.size() < 5 * others) Platform::doEventLoop(0.0);
  EXPECT_EQ(task->got, "abc");
  EXPECT_EQ(member->got, "abc");
  EXPECT_EQ(dropped->got, "a") << "what was put off is forgotten";
  // When those that it was put off for are gone, nothing less urgent overtakes it.
  task->onRead = [&] {
    for (const auto& other : busy) other->unscheduleTask();
  };
  const auto low = make("low", TaskPriority::low, [](TestTask& self) { self.scheduleTask(); });
  low->scheduleTask();
  log.clear();
  send(pair, "de");
  while (task->got.size() < 5) Platform::doEventLoop(0.0);
  EXPECT_LE(std::ranges::count(log, "low"), 2);
  low->unscheduleTask();
}

TEST_F(FdTaskTest, IsAskedForAtTheLastStep) {
  task->taskWatchFdIs(pair.ends[0]);
  task->appetite = 1;
  for (const bool suspends : {false, true}) {
    task->got.clear();
    std::deque<TestTaskPtr> others;
    while (others.size() < 40) {
      others.push_back(make("busy", TaskPriority::normal, [&](TestTask&) {
        if (task->got.size() != 1) return;
        for (const auto& other : others) other->unscheduleTask();
        root->suspendedIs(suspends);
      }));
    }
    task->scheduleTaskReadable();
    for (const auto& other : others) other->scheduleTask();
    send(pair, "abc");
    for (int pass = 0; pass < 20; ++pass) Platform::doEventLoop(0.0);
    root->suspendedIs(false);
    settle();
    EXPECT_EQ(task->got, "abc");
  }
}

TEST_F(FdTaskTest, FindsWhatWasReportedToOthersOrInVain) {
  const auto other = makeFd("other");
  task->appetite = 1;
  for (const bool shared : {false, true}) {
    if (shared) other->taskWatchFdIs(pair.ends[0]);
    other->taskSuspendedIs(true);
    for (const bool refused : {false, true}) {
      pollRefuses = refused;
      task->got.clear();
      task->taskWatchFdIs(pair.ends[0]);
      task->taskWatchReadableIs(false);
      send(pair, "abc");
      settle();
      task->taskWatchReadableIs(true);
      settle();
      EXPECT_EQ(task->got, "abc") << "watched again";
      task->taskSuspendedIs(true);
      send(pair, "def");
      settle();
      task->taskSuspendedIs(false);
      settle();
      EXPECT_EQ(task->got, "abcdef") << "resumed";
      task->refuses = true;
      send(pair, "ghi");
      EXPECT_THROW(settle(), std::runtime_error);
      settle();
      EXPECT_EQ(task->got, "abcdefghi") << "refused once";
      task->taskWatchFdDel();
    }
  }
  pollRefuses = false;
}

TEST_F(FdTaskTest, SharingCostsTheSameHoweverMany) {
  std::deque<std::shared_ptr<TestFd>> many;
  Handler plain(log, "plain");
  const auto control = Platform::getFdControl(&plain);
  control->setReads(false);
  for (const bool byLevels : {false, true}) {
    if (byLevels) control->setFd(pair.ends[0]);
    registrations = 0;
    while (many.size() < 100) {
      many.push_back(makeFd("many"));
      many.back()->appetite = 1;
      many.back()->taskWatchFdIs(pair.ends[0]);
    }
    send(pair, "x");
    settle();
    EXPECT_EQ(std::exchange(log, {}).size(), 100U) << "each is told, once";
    many.clear();
    EXPECT_LT(registrations, 300);
  }
}

TEST_F(FdTaskTest, WritesOnceAndOnlyWhatIsWatchedRuns) {
  task->taskWatchFdIs(pair.ends[0]);
  task->taskWatchWritableIs(true);
  send(pair, "x");
  task->appetite = 1;
  task->onWrite = [&] { EXPECT_FALSE(task->taskWatchWritable()); };
  settle();
  EXPECT_EQ(std::ranges::count(log, "t write"), 1);
  log.clear();
  task->taskWatchWritableIs(true);
  task->scheduleTaskReadable();
  task->taskWatchReadableIs(false);
  task->taskWatchWritableIs(false);
  task->taskSuspendedIs(true);
  task->taskSuspendedIs(false);
  EXPECT_FALSE(task->taskScheduled());
  settle();
  EXPECT_THAT(log, ElementsAre());
  EXPECT_THAT(failureOf([&] { task->readFdEvent(pair.ends[0]); }),
              HasSubstr("readFdEvent() called with taskWatchReadable off"));
  task->taskWatchReadableIs(true);
  EXPECT_THAT(failureOf([&] { task->readFdEvent(99); }),
              HasSubstr(fmt::format("Notified about 99 watching {}", pair.ends[0])));
  task->scheduleTaskReadable();
  task->scheduleTaskWritable();
  task->taskWatchFdDel();
  EXPECT_EQ(task->taskWatchFd(), -1);
  settle();
  EXPECT_THAT(log, ElementsAre());
}

TEST_F(FdTaskTest, SuspendingLosesNoWriteRunThatWasAskedFor) {
  const auto writes = [&] {
    settle();
    return std::ranges::count(std::exchange(log, {}), "t write");
  };
  task->taskSuspendedIs(true);
  task->scheduleTaskWritable();  // the writing task is made by this, and suspended too
  EXPECT_EQ(writes(), 0);
  task->taskSuspendedIs(false);
  EXPECT_EQ(writes(), 1);
  task->scheduleTaskWritable();
  task->taskSuspendedIs(false);  // as it is already
  EXPECT_TRUE(task->taskScheduledWritable());
  task->taskSuspendedIs(true);
  task->taskSuspendedIs(false);
  EXPECT_EQ(writes(), 1);
  for (const bool watches : {true, false}) {  // the run is taken back
    task->scheduleTaskWritable();
    task->scheduleTaskReadable();
    watches ? task->taskWatchFdIs(pair.ends[0]) : task->taskWatchFdDel();
    EXPECT_FALSE(task->taskScheduled());
    task->taskSuspendedIs(true);
    task->taskSuspendedIs(false);
    EXPECT_EQ(writes(), 0);
  }
}

TEST_F(FdTaskTest, KeepsItsFiguresUnlessToldNotTo) {
  for (const bool kept : {true, false}) {
    task = makeFd(kept ? "kept" : "dropped");
    task->includeInCompletedTaskIs(kept);
    task->scheduleTaskWritable();
    settle();
    const auto name = task->taskName();
    task.reset();
    for (const auto direction : {":read", ":write"}) {
      EXPECT_EQ(root->completedTaskStatForTest(name + direction).has_value(), kept);
    }
  }
}

TEST_F(FdTaskTest, MayBeDroppedByItsHook) {
  const std::array<std::function<void(TestFd&)>, 4> withdrawals = {
      [](TestFd& fd) { fd.taskWatchFdDel(); }, [](TestFd& fd) { fd.taskSuspendedIs(true); },
      [](TestFd& fd) { fd.taskWatchReadableIs(false); },
      [this](TestFd& fd) { fd.taskWatchFdIs(second.ends[0]); }};
  for (const auto& withdraw : withdrawals) {
    task = makeFd("t");
    task->taskWatchFdIs(pair.ends[0]);
    task->scheduleTaskReadable();
    task->onBusy = [&] { task.reset(); };
    withdraw(*task);
    EXPECT_EQ(task, nullptr);
  }
}

TEST_F(FdTaskTest, MayBeDestroyedByItsBodyAndByAHangUp) {
  task->taskWatchFdIs(pair.ends[0]);
  task->onRead = [&] {
    task->scheduleTaskReadable();
    task->scheduleTaskWritable();
    task.reset();
  };
  shutdown(pair.ends[1], SHUT_RDWR);
  settle();
  EXPECT_THAT(log, ElementsAre("t read"));
}

TEST_F(FdTaskTest, SharesADescriptorWithTasksAndControls) {
  const auto other = makeFd("other");
  task->appetite = other->appetite = 1;
  task->taskWatchFdIs(pair.ends[0]);
  send(pair, "abcdef");
  Platform::doEventLoop(0.0);  // the one edge is used up
  other->taskWatchFdIs(pair.ends[0]);
  settle();
  EXPECT_EQ(task->got.size() + other->got.size(), 6U);
  EXPECT_FALSE(other->got.empty());
  for (const auto& each : {task, other}) each->taskSuspendedIs(true);
  log.clear();
  Handler plain(log, "plain");
  const auto control = Platform::getFdControl(&plain);
  plain.action = [&] { control->setReads(log.size() < 3); };
  control->setFd(pair.ends[0]);
  send(pair, "g");
  settle();
  EXPECT_EQ(log.size(), 3U) << "by levels, as ever";
  for (const auto& each : {task, other}) each->taskSuspendedIs(false);
  settle();
  send(pair, "h");
  settle();
  EXPECT_EQ(task->got.size() + other->got.size(), 8U);
}

TEST_F(FdTaskTest, AReusedNumberBelongsToItsNewOwner) {
  const auto other = makeFd("other");
  SocketPair third;
  const int number = pair.ends[0];
  task->appetite = other->appetite = 9;
  task->taskWatchFdIs(number);
  settle();
  ASSERT_EQ(dup2(second.ends[0], number), number);  // closes what was watched
  task->scheduleTaskReadable();
  other->taskWatchFdIs(number);
  EXPECT_EQ(task->taskWatchFd(), -1);
  EXPECT_FALSE(task->taskScheduled());
  send(second, "x");
  settle();
  EXPECT_EQ(task->got + other->got, "x");
  ASSERT_EQ(dup2(third.ends[0], number), number);
  other->taskWatchFdIs(number);
  send(third, "y");
  settle();
  EXPECT_EQ(other->got, "xy");
}

TEST_F(FdTaskTest, AFileThatItsBodyClosedIsNotMixedUpWithTheNext) {
  Handler plain(log, "plain");
  const auto control = Platform::getFdControl(&plain);
  control->setReads(false);
  for (const auto& [refused, byLevels] : {std::pair(false, false), {true, false}, {false, true}}) {
    SocketPair closed;
    const int number = closed.ends[0];
    pollRefuses = refused;
    task->got.clear();
    task->appetite = 9;
    task->taskWatchFdIs(number);
    if (byLevels) control->setFd(number);
    task->onRead = [&] { ASSERT_EQ(dup2(second.ends[0], number), number); };
    send(closed, "x");
    send(second, "secret");
    settle();
    EXPECT_EQ(task->got, "x");
    pollRefuses = false;
    control->delFd();
  }
}

TEST_F(FdTaskTest, WhoeverIsForgottenMayDoAnything) {
  const auto third = makeFd("third");
  const int far = fcntl(pair.ends[0], F_DUPFD, 900);
  std::shared_ptr<TestFd> joining;
  const std::array<std::function<void()>, 5> reactions = {
      [&] { third->taskWatchFdIs(far); }, [&] { task.reset(); }, [&] { joining.reset(); },
      [&] { joining->taskWatchFdIs(far); }, [] { throw std::runtime_error("bad hook"); }};
  for (std::size_t i = 0; i < reactions.size(); ++i) {
    const SocketPair closed, next;
    const int number = closed.ends[0];
    task = makeFd("t");
    joining = makeFd("joining");
    joining->appetite = 1;
    for (const auto& each : {task, third}) each->taskWatchFdIs(number);
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
    EXPECT_TRUE(task == nullptr || task->taskWatchFd() == -1) << i;
  }
  close(far);
}

TEST_F(FdTaskTest, SharersOfAClosedFileHarmNobody) {
  const auto other = makeFd("other"), innocent = makeFd("innocent");
  auto dropped = makeFd("dropped");
  Handler plain(log, "plain");
  const auto control = Platform::getFdControl(&plain);
  {
    const SocketPair closed;
    for (const auto& each : {task, other, dropped}) each->taskWatchFdIs(closed.ends[0]);
    control->setFd(closed.ends[0]);
  }
  innocent->taskSuspendedIs(true);
  innocent->taskWatchFdIs(second.ends[0]);
  dropped.reset();
  control->setFd(second.ends[0]);  // the others must watch by edges now, which is refused
  EXPECT_EQ(task->taskWatchFd(), -1);
  EXPECT_EQ(other->taskWatchFd(), -1);
  plain.action = [&] { control->setReads(log.size() < 5); };
  send(second, "abc");
  settle();
  EXPECT_GE(std::ranges::count(log, "plain read " + std::to_string(second.ends[0])), 3);
}

TEST_F(FdTaskTest, LosesAndMixesUpNothing) {
  SeededRandom random;
  struct Model {
    std::shared_ptr<TestFd> real;
    int socket = -1;
    bool reads = true, suspended = false, wantsWrite = false;
    std::string got;
    int writes = 0;
    int realWrites = 0;
  };
  std::deque<SocketPair> sockets(5);
  std::array<std::string, 5> unread;
  std::deque<Model> tasks(3);
  for (Model& each : tasks) {
    each.real = makeFd("m");
    each.real->onWrite = [&each] { ++each.realWrites; };
  }
  // A control that only makes the tasks change between edges and levels: it wants no reports.
  Handler plain(log, "plain");
  const auto control = Platform::getFdControl(&plain);
  control->setReads(false);
  for (int step = 0; step < 3000; ++step) {
    Model& one = tasks[random.below(3)];
    const unsigned socket = random.below(5);
    one.real->appetite = 1 + random.below(3);
    switch (random.below(8)) {
      case 0:
        send(sockets[socket], std::to_string(step));
        unread[socket] += std::to_string(step);
        break;
      case 1: {
        const int number = static_cast<int>(socket);
        if (std::ranges::count(tasks, number, &Model::socket) > 0) break;
        one.socket = number;
        one.real->taskWatchFdIs(sockets[socket].ends[0]);
        break;
      }
      case 2:
        one.real->taskWatchReadableIs(one.reads = !one.reads);
        break;
      case 3:
        if (one.socket >= 0) one.real->taskSuspendedIs(one.suspended = !one.suspended);
        break;
      case 4:
        one.real->taskWatchWritableIs(one.wantsWrite = true);
        break;
      case 5:
        if (random.below(4) != 0 || one.suspended) break;
        one.real->taskWatchFdDel();
        one.socket = -1;
        break;
      case 6:
        random.below(2) == 0 ? control->delFd() : control->setFd(sockets[socket].ends[0]);
        break;
      default:
        log.clear();
        settle();
        for (Model& each : tasks) {
          if (each.socket >= 0 && !each.suspended) {
            each.writes += std::exchange(each.wantsWrite, false) ? 1 : 0;
            auto& rest = unread[static_cast<std::size_t>(each.socket)];
            if (each.reads) each.got += std::exchange(rest, "");
          }
          ASSERT_EQ(each.real->got, each.got) << "in step " << step;
          ASSERT_EQ(each.realWrites, each.writes) << "in step " << step;
        }
    }
  }
}

TEST_F(FdTaskTest, ADrainedDescriptorIsNotAskedButReportsWhatComes) {
  const SocketPair sockets;
  const auto drained = makeFd("a");
  drained->appetite = 1;
  drained->onRead = [&] { drained->taskReadDrained(); };
  EXPECT_THROW(drained->taskReadDrained(), Tarvo::AssertException);
  drained->taskWatchFdIs(sockets.ends[0]);
  send(sockets, "ab");
  settle();
  EXPECT_EQ(drained->got, "a") << "the kernel was asked";
  send(sockets, "c");
  settle();
  EXPECT_EQ(drained->got, "ab");
  drained->onRead = nullptr;
  send(sockets, "d");
  settle();
  EXPECT_EQ(drained->got, "abcd");
}

}  // namespace
