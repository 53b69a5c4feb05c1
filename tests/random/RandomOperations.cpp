/// usage: RandomOperations SECONDS [SEED [OPERATIONS]]
///
/// World after world of random operations for half of the time, then small ones in which one
/// allocation after the other fails; the first of each has the given seed. What is found shows the
/// seed and the number of the operation, so that `RandomOperations 0 SEED OPERATIONS` repeats it,
/// and a smaller number of operations may too.

#include <event2/event.h>

#include <csignal>
#include <ctime>
#include <random>

#include "Tarvo/Backtrace.h"
#include "Tarvo/Debug.h"
#include "Tarvo/LibeventFactory.h"
#include "random/Actor.h"
#include "support/OpenDescriptors.h"
#include "support/TestClock.h"

using namespace randomtest;

[[gnu::noinline]] void* operator new(std::size_t size) {
  if (void* memory = Allocations::resize(nullptr, size)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return Allocations::resize(nullptr, size);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace {

/// One thread's whole runtime under random operations, beside a small model of what must happen:
/// what is scheduled and not suspended runs; nothing else runs; no timer is early or lost; every
/// byte written is read; at the end nothing is left.
struct World final : Stage {
  World(std::uint64_t itsSeed, long failingAllocation) : Stage(itsSeed, failingAllocation) {
    Platform::setFastForward(true);
    // All worlds begin at a whole second, so that each can be repeated alone.
    Platform::fastForwardBy(1 - std::fmod(Tarvo::leVirtualTimeOffset(), 1));
    current = this;
    testsupport::TestClock::beforeWait = [](double seconds) {
      current->checkWait(seconds < 0 ? infinity : Tarvo::time() + seconds);
      if (seconds < 0) event_base_loopbreak(Tarvo::leInit());
    };
    std::signal(SIGALRM, [](int) { current->require(false, "a world ends"); });
    alarm(30);
    Allocations::untilFailure = failure;
    while (root == nullptr) library([this] { root = Tarvo::schedulerRootTarvoNonShared("root"); });
    while (wheel == nullptr) library([this] { wheel = Tarvo::getTimerWheel(); });
    root->defaultTaskQuantumIs(random.oneIn(4) ? 1 + random.below(1000) : 20'000'000);
    root->taskTestYieldRatioIs(static_cast<unsigned char>(random.oneIn(8) ? random.below(4) : 0));
    root->followFastForwardIs(!random.oneIn(4));
    root->runSliceIs(std::array{0, 20'000, 1'000'000'000}[random.below(3)]);
    Platform::setFastForward(random.oneIn(2));
  }

  ~World() override {
    Platform::setFastForward(false);
    reportTasks.clear();
    for (Actor* actor : live) actor->drop();
    for (const auto& group : groups) group->owner.reset();
    wheel.reset();
    require(root->totalRegisteredTaskCount() == 0 && root->taskGroupCount() == 0,
            "no task and no group is left");
    require(root.use_count() == 1, "nobody holds the root");
    root.reset();
    actors.clear();
    channels.clear();
    require(event_base_get_num_events(Tarvo::leInit(), EVENT_BASE_COUNT_ADDED) <= 1,
            "no event is left");  // but the master timer of the thread's wheel
    Tarvo::leFree();
    for (const auto& count : Tarvo::allocationCounts()) {
      require(count.typeName.find("Control") == std::string::npos || count.objects == 0,
              "no control is left");
    }
    require(testsupport::openDescriptors() == descriptorsBefore, "no descriptor is left");
  }

  /// Whether the allocation that was to fail has done so.
  bool run(unsigned long limit) {
    while (operations < limit) step();
    const bool failed = Allocations::untilFailure == 0;
    settle();
    return failed;
  }

  void step() {
    constexpr double limits[] = {0, 0, 1e-3, 1e-2, 0.1, 10, infinity};
    const double limit = limits[random.below(std::size(limits))];
    fuel = 30;
    if (!random.oneIn(4)) return operation(nullptr);
    ++operations;
    const unsigned choice = random.below(12);
    if (choice == 0) {
      Platform::setFastForward(random.oneIn(2));
    } else if (const auto group = choice == 3 ? random.pick(groups) : nullptr) {
      suspend(*group, !group->suspended);
    } else if (choice == 5) {
      catchThrown([] { Platform::doEventLoopInWaitfor(0.5); });
    } else {
      catchThrown([=] { Platform::doEventLoop(limit); });
    }
  }

  /// What leaves the loop is what a body threw, and nothing that a body threw gets lost.
  template <typename Loop>
  void catchThrown(Loop loop) {
    try {
      library(loop);
    } catch (unsigned long number) {
      require(number == thrown, "the exception is the last one");
      ++caught;
    }
    require(caught == thrown, "each exception leaves the loop");
  }

  void act(Actor& self) override {
    ++runs;
    for (unsigned n = random.below(4); n > 0 && fuel > 0; --n, --fuel) operation(&self);
    if (fuel == 0 || !random.oneIn(30)) return;
    if (!self.swallows()) ++thrown;
    throw thrown;
  }

  void operation(Actor* self) {
    ++operations;
    const unsigned choice = random.below(40);
    Actor* actor = self && !self->gone && random.oneIn(2) ? self : random.pick(live);
    const int at = static_cast<int>(random.below(2));
    if (choice < 2) {
      if (live.size() < 40) make();
    } else if (choice == 2) {
      operateGroup(random.pick(groups));
    } else if (choice == 3) {
      testsupport::TestClock::advance(random.below(1000) * 1e-6);
    } else if (choice == 4) {
      if (random.oneIn(30)) reports();
    } else if (choice == 5) {
      if (channels.size() < 6) channels.push_back(std::make_shared<Channel>());
      if (random.oneIn(4)) std::erase(channels, random.pick(channels));
    } else if (choice == 6) {
      library([this] { root->suspendedIs(!rootSuspended); });
      rootSuspended = root->suspended();
    } else if (const auto channel = choice < 11 ? random.pick(channels) : nullptr) {
      random.oneIn(3) ? channel->read(at, 1 + random.below(5000))
                      : channel->write(at, random.oneIn(50) ? Channel::all : 1 + random.below(100));
    } else if (actor != nullptr && choice == 11) {
      std::erase(live, actor);
      actor->drop();
    } else if (actor != nullptr) {
      actor->operate();
    }
  }

  void make() {
    const auto group = random.oneIn(2) ? random.pick(groups) : nullptr;
    std::unique_ptr<Actor> made;
    if (!library([&] { made = std::make_unique<Actor>(*this, group); })) return;
    live.push_back(made.get());
    actors.push_back(std::move(made));
  }

  void suspend(Group& group, bool on) {
    auto& parent = const_cast<Tarvo::TaskImpl&>(group.owner->parentTask());
    library([&] { parent.taskSuspendedIs(on); });
    group.suspended = parent.taskSuspended();
  }

  void operateGroup(std::shared_ptr<Group> group) {
    if (random.oneIn(3)) {
      if (group == nullptr || group->suspended) return;
      group->owner.reset();
      std::erase(groups, group);
    } else if (groups.size() < 6) {
      if (group != nullptr && group->parent != nullptr) group = nullptr;  // two deep
      const auto made = std::make_shared<Group>(group);
      const bool done = library([&] {
        std::shared_ptr<Tarvo::TaskScheduler> parent = root;
        if (group != nullptr) parent = group->owner;
        made->owner = std::make_shared<Tarvo::TaskGroup>("group", random.priority(), false, parent);
        made->owner->tasksPermittedMultipleRunsIs(random.oneIn(2));
        made->owner->taskGroupQuantumIs(1 + random.below(1'000'000));
        made->owner->taskGroupForceYieldInTestIs(random.oneIn(4));
      });
      if (done) groups.push_back(made);
    }
  }

  void reports() {
    std::shared_ptr<void> task;
    library([&, this] {
      if (random.oneIn(4)) task = root->statsResetAsync();
      std::string all = root->statsRenderTextForDebugToString() + root->statsRenderJson();
      all += root->statsRenderPrometheus() + root->timelineRenderJson();
      root->historyEntryCountIs(random.below(200));
      require(!(all + root->historyRenderTextForDebugToString()).empty(), "reports say something");
    });
    if (reportTasks.size() == 3) reportTasks.clear();
    if (task != nullptr) reportTasks.push_back(task);
  }

  void checkWait(double until) {
    const Allocations uncounted(false);
    for (Actor* actor : live) actor->checkWait(until);
  }

  /// Lets everything that is asked for happen, and looks whether it has.
  void settle() {
    fuel = 0;
    Allocations::untilFailure = 0;
    root->suspendedIs(rootSuspended = false);
    for (const auto& group : groups) suspend(*group, false);
    double wait = 0.1;
    for (const Actor* actor : live) {
      if (actor->latest < infinity) wait = std::max(wait, actor->latest - Tarvo::time() + 0.1);
      for (int at = 0; actor->channel != nullptr && at < 2; ++at) {
        const auto reads = [&](const Actor* each) { return each->reads(actor->channel.get(), at); };
        if (std::ranges::none_of(live, reads)) actor->channel->read(at, Channel::all);
      }
    }
    catchThrown([=] { Platform::doEventLoop(wait); });
    catchThrown([] { Platform::doEventLoop(); });  // a loop with a limit ends in the middle
    checkWait(infinity);
    for (const Actor* actor : live) {
      require(!actor->channel || !actor->watchesWrites || !actor->mayRun(), "a writer is told");
    }
    require(root->runnableTaskCount() == 0, "nothing is queued");
  }

  const long descriptorsBefore = testsupport::openDescriptors();
  const testsupport::TestClock clock{300};
  std::vector<std::unique_ptr<Actor>> actors;  // also those that are gone, which must not be called
  std::vector<Actor*> live;
  std::vector<std::shared_ptr<Group>> groups;
  std::vector<std::shared_ptr<void>> reportTasks;
  unsigned long runs = 0, thrown = 0, caught = 0;
  static inline World* current = nullptr;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return std::fputs("usage: RandomOperations SECONDS [SEED [OPERATIONS]]\n", stderr);
  const double seconds = std::stod(argv[1]);
  const std::uint64_t seed = argc > 2 ? std::stoull(argv[2]) : std::random_device{}();
  const unsigned long limit = argc > 3 ? std::stoul(argv[3]) : 2000;
  event_set_mem_functions([](std::size_t size) { return Allocations::resize(nullptr, size); },
                          Allocations::resize, std::free);
  Tarvo::throwOnAssertFailIs(true);
  Tarvo::Platform::clearTarvoDebug("TaskScheduler/0");  // each body that throws
  const Tarvo::Backtrace first(true);                   // the unwinder keeps a pipe of its own
  std::printf("seed %llu\n", static_cast<unsigned long long>(seed));
  std::fflush(stdout);

  unsigned long worlds = 0, operations = 0, runs = 0;
  const auto explore = [&](std::uint64_t itsSeed, unsigned long most, long failing) {
    World world(itsSeed, failing);
    const bool failed = world.run(most);
    ++worlds;
    operations += world.operations;
    runs += world.runs;
    return failed;
  };
  const std::time_t begin = std::time(nullptr);
  const auto isBefore = [&](double end) { return difftime(std::time(nullptr), begin) < end; };
  std::uint64_t next = seed;
  do explore(next++, limit, 0);
  while (isBefore(seconds / 2));
  std::printf("%lu worlds, %lu operations, %lu runs\n", worlds, operations, runs);
  for (next = seed; next == seed || isBefore(seconds); ++next) {
    for (long failing = 1; explore(next, std::min(limit, 150UL), failing); ++failing) continue;
  }
  std::printf("%lu worlds, %lu operations, %lu runs\n", worlds, operations, runs);
}
