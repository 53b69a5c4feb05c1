#ifndef TARVO_TESTS_RANDOM_ACTOR_H
#define TARVO_TESTS_RANDOM_ACTOR_H

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "Tarvo/Allocator.h"
#include "Tarvo/Exception.h"
#include "Tarvo/TaskControl.h"

namespace randomtest {

namespace Platform = Tarvo::Platform;

constexpr double infinity = HUGE_VAL;

struct Random {
  unsigned below(unsigned n) {
    state = state * 6364136223846793005U + 1442695040888963407U;
    return static_cast<unsigned>(((state >> 32) * n) >> 32);
  }
  bool oneIn(unsigned n) { return below(n) == 0; }
  Tarvo::TaskPriority priority() {
    return Tarvo::TaskPriority(static_cast<std::uint8_t>(below(5)));
  }
  template <typename Any>
  Any pick(const std::vector<Any>& all) {
    return all.empty() ? Any() : all[below(static_cast<unsigned>(all.size()))];
  }
  std::uint64_t state;
};

/// The allocation that is to fail, counted down while the library, not the model, is at work.
struct Allocations {
  explicit Allocations(bool on) : before(std::exchange(counted, on)) {}
  ~Allocations() { counted = before; }
  static void* resize(void* memory, std::size_t size) {
    const bool fails = counted && untilFailure != 0 && --untilFailure == 0;
    return fails ? nullptr : std::realloc(memory, size);
  }
  const bool before;
  static inline bool counted = false;
  static inline long untilFailure = 0;
};

/// Both ends of a connection.
struct Channel {
  Channel() {
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) != 0) std::abort();
  }
  ~Channel() {
    for (const int end : ends) close(end);
  }
  void write(int from, std::size_t most) const {
    static_cast<void>(!::write(ends[from], bytes, most));
  }
  void read(int at, std::size_t most) const { static_cast<void>(!::read(ends[at], bytes, most)); }
  bool unread(int at) const { return recv(ends[at], bytes, 1, MSG_PEEK) > 0; }
  static constexpr std::size_t all = 1 << 20;
  static inline char bytes[all];
  int ends[2];
};

struct Group {
  bool mayRun() const { return !suspended && (parent == nullptr || parent->mayRun()); }
  std::shared_ptr<Group> parent;
  std::shared_ptr<Tarvo::TaskGroup> owner = nullptr;  // dropped; members may keep it alive
  bool suspended = false;
};

/// What actors know of the world around them.
struct Stage {
  Stage(std::uint64_t itsSeed, long failingAllocation)
      : seed(itsSeed), failure(failingAllocation) {}
  /// A body: some operations, perhaps an exception.
  virtual void act(struct Actor& self) = 0;
  virtual ~Stage() = default;

  void require(bool holds, const char* what) const {
    if (holds) return;
    std::fprintf(stderr, "does not hold: %s\nseed %llu, operation %lu, failed allocation %ld\n",
                 what, static_cast<unsigned long long>(seed), operations, failure);
    std::abort();
  }

  /// Calls the library; false when it threw because an allocation failed.
  template <typename Call>
  bool library(Call call) {
    const Allocations counted(true);
    const long left = Allocations::untilFailure;
    try {
      return call(), true;
    } catch (const std::exception&) {
      if (left == 0 || Allocations::untilFailure != 0) throw;
    }
    return false;
  }

  const std::uint64_t seed;
  const long failure;
  Random random{seed};
  std::shared_ptr<Tarvo::TaskSchedulerRoot> root = nullptr;
  std::shared_ptr<Tarvo::TimerWheel> wheel = nullptr;
  std::vector<std::shared_ptr<Channel>> channels = {};
  bool rootSuspended = false;
  unsigned fuel = 0;  // operations that bodies may still do before the loop returns
  unsigned long operations = 0;
};

enum Kind { callbackTask, timerTask, fdTask, loopCallback, loopTimer, loopFd, wheelTimer, kinds };

/// One thing that is run by a scheduler or called by the loop, and what is expected of it.
struct Actor final : Platform::TimeoutHandler, Platform::CallbackHandler, Platform::FdEventHandler {
  Actor(Stage& itsStage, std::shared_ptr<Group> inGroup)
      : stage(itsStage), kind(stage.random.below(kinds)), group(std::move(inGroup)) {
    if (kind == callbackTask) makeTask<Platform::TaskCallbackControl>();
    if (kind == timerTask) makeTask<Platform::TaskTimerControl>();
    if (kind == fdTask) makeTask<Platform::TaskFdControl>();
    if (kind == loopCallback) is(Platform::getCallbackControl(this));
    if (kind == loopFd) is(Platform::getFdControl(this));
    if (kind == wheelTimer) is(Platform::getTimerControl(this, stage.wheel));
    const auto priority = static_cast<Platform::EventPriority>(stage.random.below(2));
    if (kind == loopTimer) is(Platform::getTimerControl(this, priority));
  }

  void drop() {
    check();
    gone = true;
    owner.reset();
  }

  bool isTask() const { return kind < loopCallback; }
  bool mayRun() const {
    const bool held = isTask() && (stage.rootSuspended || (group != nullptr && !group->mayRun()));
    return !gone && !suspended && !held;
  }
  /// Whether an exception's handler is asked, and swallows it.
  bool swallows() const { return handles && kind >= fdTask && kind != wheelTimer; }
  bool reads(const Channel* of, int at) const {
    return channel.get() == of && side == at && watchesReads && mayRun();
  }
  void require(bool holds, const char* what) const {
    if (!holds) std::fprintf(stderr, "kind %u, due in %g\n", kind, due - Tarvo::time());
    stage.require(holds, what);
  }

  /// Compares with the library, which alone knows when a timer fires.
  void check() {
    if (timer != nullptr && !armed() && due < infinity) {
      require(due <= Tarvo::time(), "a timer task's timer is gone before its time");
      expect(0, 0, 0);
    }
    require(armed() == (due < infinity), "a timer is armed");
    require(queued() == wanted, "a task is queued, or a callback pending, when it is wanted");
    require(task == nullptr || task->taskRunCount() == runCount, "each run is counted");
    if (descriptor != nullptr) {
      require(descriptor->taskWatchWritable() == watchesWrites, "writes are watched as told");
      require(!suspended || !descriptor->taskScheduled(), "a suspended task is not queued");
    }
  }

  /// The loop waits until then with nothing ready: nothing that could be done may be left.
  void checkWait(double until) {
    constexpr double slip = 0.03;  // a tick of the wheel, two steps of the loop's clock, a rounding
    check();
    require(!(wanted || wantsRead || wantsWrite) || !mayRun(),
            "the loop waits and a run is wanted");
    require(latest + slip > until || latest == infinity, "the loop waits beyond a timer");
    require(!reads(channel.get(), side) || !channel || !channel->unread(side),
            "the loop waits and there are bytes to read");
  }

  void operate() {
    check();
    const unsigned choice = stage.random.below(9);
    if (isTask() && choice < 2) {
      suspend(choice == 1 && (!suspended || stage.random.oneIn(4)));
    } else if (fdControl != nullptr) {
      operateDescriptor(stage.random.below(6), !stage.random.oneIn(4));
    } else if (timerControl != nullptr && (timer == nullptr || choice > 3)) {
      operateTimer(choice % 3 == 0 ? infinity : delay());
    } else {
      operateRun(!stage.random.oneIn(4));
    }
    if (!gone) check();
  }

  Stage& stage;
  const unsigned kind;
  bool gone = false, suspended = false, wanted = false;
  double due = infinity, latest = infinity;  // not before the one, and about then
  Tarvo::TaskImpl* task = nullptr;
  std::shared_ptr<Channel> channel = nullptr;
  bool watchesReads = true, watchesWrites = false;

 private:
  template <typename Control>
  struct Acting final : Control {
    template <typename... Args>
    explicit Acting(Actor& its, Args... args) : Control(&its, args...), actor(its) {}
    void handleResetStats() override { actor.runCount = 0; }
    Actor& actor;
  };
  template <typename Control>
  void makeTask() {
    std::shared_ptr<Tarvo::TaskScheduler> scheduler = stage.root;
    if (group != nullptr) scheduler = group->owner;
    is(std::make_shared<Acting<Control>>(*this, scheduler, stage.random.priority(), "actor"));
  }
  template <typename Made>
  void is(const std::shared_ptr<Made>& made) {
    const auto find = [&]<typename Face>(Face*& face) { face = dynamic_cast<Face*>(made.get()); };
    find(task), find(timer), find(descriptor);
    find(timerControl), find(callbackControl), find(fdControl);
    owner = made;
  }

  // What is called.

  void timeout() override { executed(); }
  void callback() override { executed(); }
  bool handleTimeoutException() override { return handles; }
  bool handleCallbackException() override { return handles; }
  bool handleFdException(int) override { return handles; }

  void run() {
    const Allocations uncounted(false);
    require(mayRun(), "nothing runs while suspended or after its end");
    ++runCount;
    stage.act(*this);
  }
  void executed() {
    const double early = kind == loopTimer ? 0.005 : 0;  // the loop's clock has steps of 4 ms
    require(wanted || due <= Tarvo::time() + early, "what runs was wanted and is due");
    wanted = false;
    due = latest = infinity;
    run();
  }
  std::size_t amount(unsigned all) {
    return stage.random.oneIn(all) ? Channel::all : 1 + stage.random.below(100);
  }
  void readFdEvent(int fd) override {
    require(watchesReads, "a reading run is watched");
    require(fd == (channel ? channel->ends[side] : -1), "it reads its descriptor");
    wantsRead = false;
    if (channel) channel->read(side, amount(stage.fuel == 0 ? 1 : 2));
    run();
  }
  void writeFdEvent(int fd) override {
    require(watchesWrites || wantsWrite, "a writing run was asked for");
    require(fd == (channel ? channel->ends[side] : -1), "it writes to its descriptor");
    watchesWrites = wantsWrite = false;
    if (channel && stage.fuel > 0) channel->write(side, amount(50));
    run();
  }

  // What is done to it.

  /// A failure leaves the object as it was, or half-way: then what it says holds.
  template <typename Call>
  void attempt(Call call) {
    if (stage.library(call)) return;
    if (!armed()) due = latest = infinity;
    wanted = queued();
    if (task != nullptr) suspended = task->taskSuspended();
    if (fdControl != nullptr && fdControl->getFd() < 0) channel.reset();
    if (descriptor == nullptr) return;
    suspended = descriptor->taskSuspended();
    watchesReads = descriptor->taskWatchReadable();
    watchesWrites = descriptor->taskWatchWritable();
    wantsRead = descriptor->taskScheduledReadable();
    wantsWrite = suspended ? wantsWrite : descriptor->taskScheduledWritable();
  }
  bool armed() const {
    if (timer != nullptr) return timer->timerRunning();
    return timerControl != nullptr && timerControl->remainingTimeout() < infinity;
  }
  bool queued() const {
    if (task != nullptr) return task->taskStatus().taskOnRunQueue();
    return callbackControl != nullptr && callbackControl->pendingCallback();
  }
  /// In seconds: at once, soon, late, hardly ever, never.
  double delay() {
    constexpr double units[] = {0, 0, 1e-4, 1e-3, 1e-2, 1e-2, 1, 30, -1, 1e3, infinity};
    const double unit = units[stage.random.below(std::size(units))];
    return unit > 0 && unit < infinity ? unit * (1 + stage.random.below(99)) / 10 : unit;
  }
  void expect(double delay, double least, double most) {
    const bool atOnce = delay == 0 && isTask();
    wanted = atOnce && !suspended;
    due = atOnce ? infinity : Tarvo::time() + least;
    latest = atOnce ? infinity : Tarvo::time() + most;
  }

  void suspend(bool on) {
    if (on != suspended) {
      wantsRead = !on && watchesReads && descriptor != nullptr;
      wanted = !on && task != nullptr && due == infinity;
    }
    suspended = on;
    attempt([=, this] { task ? task->taskSuspendedIs(on) : descriptor->taskSuspendedIs(on); });
  }

  void operateRun(bool on) {
    if (on) expect(0, infinity, infinity);
    wanted = on && !suspended;
    attempt([=, this] {
      if (task != nullptr) return on ? task->scheduleTask() : task->unscheduleTask();
      on ? callbackControl->requestCallback() : callbackControl->cancelCallback();
    });
  }

  void operateTimer(double delay) {
    const bool plain = timer == nullptr || delay < 0 || delay == infinity;
    const unsigned way = plain ? 4 : stage.random.below(5);
    const auto percent = static_cast<unsigned char>(stage.random.below(100));
    const double jitter = way == 1 || way == 2 ? delay * (percent / 100.0 + 1e-12) : 0;
    if (way != 0 || (!wanted && (delay == 0 || Tarvo::time() + delay <= due))) {
      expect(delay, way == 1 ? delay - jitter : delay, way == 2 ? delay + jitter : delay);
    }
    attempt([=, this] {
      if (way == 0) return timer->scheduleTaskLowestDelay(delay);
      if (way == 1) return timer->scheduleTaskJitterDown(delay, percent);
      if (way == 2) return timer->scheduleTaskJitterUp(delay, percent);
      if (way == 3)
        return timer->scheduleTaskDelay(std::chrono::nanoseconds(std::llround(delay * 1e9)));
      delay == infinity ? timerControl->delTimeout() : timerControl->setTimeout(delay);
    });
  }

  void bind(const std::shared_ptr<Channel>& to, int at) {
    if (to == channel && at == side && descriptor != nullptr) return;
    const auto before = std::exchange(channel, to);  // to be closed later than it is forgotten
    side = at;
    wantsRead = wantsWrite = false;
    if (descriptor == nullptr) watchesReads = choseReads, watchesWrites = choseWrites;
    attempt([&] { to ? fdControl->setFd(to->ends[at]) : fdControl->delFd(); });
  }

  void operateDescriptor(unsigned choice, bool on) {
    if (choice == 0) {
      const int at = static_cast<int>(stage.random.below(2));
      bind(on ? stage.random.pick(stage.channels) : nullptr, at);
    } else if (choice == 1) {
      wantsRead = wantsRead && on;
      watchesReads = choseReads = on;
      attempt([=, this] { fdControl->setReads(on); });
    } else if (choice == 2) {
      wantsWrite = wantsWrite && (on || !watchesWrites);
      watchesWrites = choseWrites = on;
      attempt([=, this] { fdControl->setWrites(on); });
    } else if (descriptor == nullptr) {
      watchesReads = watchesWrites = false;
      attempt([this] { fdControl->clearEvents(); });
    } else if (choice == 3 && watchesReads) {
      wantsRead = !suspended;
      attempt([this] { descriptor->scheduleTaskReadable(); });
    } else if (choice == 4) {
      wantsWrite = stage.library([this] { descriptor->scheduleTaskWritable(); }) || wantsWrite;
    }
  }

  const std::shared_ptr<Group> group;  // null: the root, or the loop
  const bool handles = stage.random.oneIn(2);
  std::shared_ptr<void> owner = nullptr;
  Tarvo::TimerTask* timer = nullptr;
  Tarvo::FileDescriptorTask* descriptor = nullptr;
  Platform::TimerControl* timerControl = nullptr;
  Platform::CallbackControl* callbackControl = nullptr;
  Platform::FdControl* fdControl = nullptr;
  unsigned runCount = 0;
  int side = 0;
  bool choseReads = true, choseWrites = false;  // of a control on the loop at its next descriptor
  bool wantsRead = false, wantsWrite = false;   // whatever the descriptor's state
};

}  // namespace randomtest

#endif
