#ifndef TARVO_TESTS_RANDOM_WORLD_H
#define TARVO_TESTS_RANDOM_WORLD_H

/// One thread's whole runtime under random operations, beside a small model of what must happen:
/// what is scheduled and not suspended runs; nothing else runs; no timer is early or lost; every
/// byte written is read; at the end nothing is left. What contradicts it ends the program with the
/// seed and the number of the operation.

#include <cmath>
#include <cstdint>
#include <memory>
#include <new>
#include <source_location>
#include <utility>
#include <vector>

#include "Tarvo/Exception.h"
#include "Tarvo/TaskControl.h"
#include "support/TestClock.h"

namespace randomtest {

namespace Platform = Tarvo::Platform;

constexpr double infinity = HUGE_VAL;

struct Random {
  unsigned below(unsigned n) {
    state = state * 6364136223846793005U + 1442695040888963407U;
    return static_cast<unsigned>(((state >> 32) * n) >> 32);
  }
  bool oneIn(unsigned n) { return below(n) == 0; }
  /// In seconds: at once, soon, late, hardly ever, never.
  double delay() {
    constexpr double units[] = {0, 0, 1e-4, 1e-3, 1e-2, 1e-2, 1, 30, -1, 1e3, infinity};
    const double unit = units[below(std::size(units))];
    return unit > 0 && unit < infinity ? unit * (1 + below(99)) / 10 : unit;
  }
  std::uint64_t state;
};

/// The allocation that is to fail: counted down while the library, not the model, is at work.
struct Allocations {
  static inline long untilFailure = 0;
  static inline long failures = 0;
  static inline bool failed = false;  // and nobody has told the model yet
  static inline bool counted = false;
};

/// Both ends of a connection, and the bytes sent to and taken from each.
struct Channel {
  Channel();
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;
  ~Channel();
  void write(int from, std::size_t size);
  void read(int at, std::size_t size);
  bool unread(int at) const { return got[at] < sent[at]; }
  int ends[2];
  std::size_t sent[2] = {};
  std::size_t got[2] = {};
};

struct World;

struct Group {
  bool runs() const { return !suspended && (parent == nullptr || parent->runs()); }
  std::shared_ptr<Tarvo::TaskGroup> owner;  // empty once dropped; members may keep it alive
  Group* parent;
  bool suspended = false;
};

enum Kind : unsigned {
  task,
  timerTask,
  fdTask,
  taskCallback,
  taskTimer,
  taskFd,  // run by a scheduler
  loopCallback,
  loopTimer,
  loopFd,
  wheelTimer,  // called by the loop
  kinds
};

/// One thing that is run or called, and what is expected of it.
struct Actor final : Platform::TimeoutHandler, Platform::CallbackHandler, Platform::FdEventHandler {
  Actor(World& inWorld, Kind ofKind, Group* inGroup);
  void operate();
  void drop();
  void suspend(bool on);
  /// Compares with the library, which alone knows when a timer fires.
  void check();
  void executed();
  void timeout() override { executed(); }
  void callback() override { executed(); }
  void readFdEvent(int fd) override;
  void writeFdEvent(int fd) override;
  bool handleTimeoutException() override { return handles; }
  bool handleCallbackException() override { return handles; }
  bool handleFdException(int) override { return handles; }

  bool isTask() const { return kind < loopCallback; }
  bool mayRun() const;
  /// Whether an exception's handler is asked, and swallows it.
  bool swallows() const { return handles && (kind > taskTimer && kind != wheelTimer); }
  bool reader(const Channel* of, int at) const {
    return channel.get() == of && side == at && reads && mayRun();
  }

  World& world;
  const Kind kind;
  Group* const group;  // null: the root, or the loop
  std::shared_ptr<void> owner;
  Tarvo::TaskImpl* taskImpl = nullptr;
  Tarvo::TimerTask* timer = nullptr;
  Tarvo::FileDescriptorTask* descriptor = nullptr;
  Platform::TimerControl* timerControl = nullptr;
  Platform::CallbackControl* callbackControl = nullptr;
  Platform::FdControl* fdControl = nullptr;

  bool gone = false;
  bool suspended = false;
  bool handles;
  bool wanted = false;       // has to run
  double due = infinity;     // not to run before
  double latest = infinity;  // is to run about then
  unsigned runCount = 0;

  std::shared_ptr<Channel> channel;
  int side = 0;
  bool reads = true;       // is told while there is something to read
  bool writes = false;     // is told once when it can be written
  bool choseReads = true;  // what a control on the loop begins with at its next descriptor
  bool choseWrites = false;
  bool wantsRead = false;  // a run was asked for, whatever the descriptor's state
  bool wantsWrite = false;

 private:
  void build();
  template <typename Call>
  void attempt(Call call);
  void operateTask();
  void operateTimerTask();
  void operateTimerControl();
  void operateCallback();
  void operateDescriptor();
  void bind(const std::shared_ptr<Channel>& to, int at);
  void settings();
  void resync();
  void expectAt(double from, double delay, double longest);
  void run();
};

struct World {
  /// Ends, settled, after `limit` operations.
  World(std::uint64_t worldSeed, unsigned long mostOperations);
  World(const World&) = delete;
  World& operator=(const World&) = delete;
  ~World();
  void run();

  /// A body: some operations, perhaps an exception.
  void act(Actor& self);
  void require(bool holds, const char* what, const Actor* actor = nullptr,
               std::source_location where = std::source_location::current()) const;
  /// Calls the library; with failing allocations false when that was the reason why it threw.
  template <typename Call>
  bool library(Call call);

  const testsupport::TestClock clock{300};
  Random random;
  const std::uint64_t seed;
  const unsigned long limit;
  std::shared_ptr<Tarvo::TaskSchedulerRoot> root;
  std::shared_ptr<Tarvo::TimerWheel> wheel;
  bool rootSuspended = false;
  unsigned long operations = 0;
  unsigned long runs = 0;

 private:
  void step();
  void operation(Actor* self);
  void runLoop();
  void catchThrown(void (*loop)(World&));
  void make();
  void groups();
  void reports();
  void settle();
  void checkWait(double seconds);
  template <typename Any>
  Any pickOne(const std::vector<Any>& all) {
    return all.empty() ? Any() : all[random.below(static_cast<unsigned>(all.size()))];
  }
  Group* pickGroup();

  friend struct Actor;
  std::vector<std::unique_ptr<Actor>> actors;  // also those that are gone, which must not be called
  std::vector<Actor*> live;
  std::vector<std::unique_ptr<Group>> allGroups;
  std::vector<std::shared_ptr<Channel>> channels;
  std::vector<std::shared_ptr<void>> reportTasks;
  unsigned fuel = 0;  // operations that bodies may still do before the loop returns
  unsigned long thrown = 0;
  unsigned long caught = 0;
  long descriptorsBefore;
};

template <typename Call>
bool World::library(Call call) {
  struct Counted {
    ~Counted() { Allocations::counted = before; }
    const bool before = std::exchange(Allocations::counted, true);
  } const counted;
  try {
    call();
    return true;
  } catch (const std::bad_alloc&) {
    if (!std::exchange(Allocations::failed, false)) throw;
  } catch (const Tarvo::Exception&) {
    if (!std::exchange(Allocations::failed, false)) throw;
  }
  return false;
}

}  // namespace randomtest

#endif
