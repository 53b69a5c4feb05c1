#include "random/World.h"

#include <event2/event.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "Tarvo/Allocator.h"
#include "Tarvo/LibeventFactory.h"
#include "support/OpenDescriptors.h"

namespace randomtest {

namespace {

constexpr unsigned mostActors = 40;
constexpr unsigned mostGroups = 5;
constexpr unsigned mostChannels = 6;

struct Thrown {
  unsigned long number;
};

World* current = nullptr;

}  // namespace

Channel::Channel() {
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) != 0) std::abort();
}

Channel::~Channel() {
  close(ends[0]);
  close(ends[1]);
}

void Channel::write(int from, std::size_t size) {
  static const char bytes[4096] = {};
  while (size > 0) {
    const ssize_t done = ::write(ends[from], bytes, std::min(size, sizeof(bytes)));
    if (done <= 0) return;
    sent[1 - from] += static_cast<std::size_t>(done);
    size -= static_cast<std::size_t>(done);
  }
}

void Channel::read(int at, std::size_t size) {
  char bytes[4096];
  while (size > 0) {
    const ssize_t done = ::read(ends[at], bytes, std::min(size, sizeof(bytes)));
    if (done <= 0) return;
    got[at] += static_cast<std::size_t>(done);
    size -= static_cast<std::size_t>(done);
  }
}

World::World(std::uint64_t worldSeed, unsigned long mostOperations)
    : random{worldSeed},
      seed(worldSeed),
      limit(mostOperations),
      descriptorsBefore(testsupport::openDescriptors()) {
  Platform::setFastForward(true);
  // All worlds begin at a whole second, so that each can be repeated alone.
  Platform::fastForwardBy(1 - std::fmod(Tarvo::leVirtualTimeOffset(), 1));
  current = this;
  testsupport::TestClock::beforeWait = [](double seconds) {
    current->checkWait(seconds);
    if (seconds < 0) event_base_loopbreak(Tarvo::leInit());
  };
  while (root == nullptr) library([this] { root = Tarvo::schedulerRootTarvoNonShared("root"); });
  while (wheel == nullptr) library([this] { wheel = Tarvo::getTimerWheel(); });
  root->defaultTaskQuantumIs(random.oneIn(4) ? 1 + random.below(1000) : 20'000'000);
  root->taskTestYieldRatioIs(static_cast<unsigned char>(random.oneIn(8) ? random.below(4) : 0));
  root->followFastForwardIs(!random.oneIn(4));
  Platform::setFastForward(random.oneIn(2));
}

World::~World() {
  Platform::setFastForward(false);
  reportTasks.clear();
  for (Actor* actor : live) actor->drop();
  for (const auto& group : allGroups) group->owner.reset();
  wheel.reset();
  require(root->totalRegisteredTaskCount() == 0 && root->taskGroupCount() == 0,
          "no task and no group is left");
  require(root.use_count() == 1, "nobody holds the root");
  root.reset();
  channels.clear();
  actors.clear();
  require(event_base_get_num_events(Tarvo::leInit(), EVENT_BASE_COUNT_ADDED) <= 1,
          "no event is left");  // but the master timer of the thread's wheel
  Tarvo::leFree();
  for (const char* type : {"Tarvo::LibeventFdControl", "Tarvo::LibeventCallbackControl"}) {
    for (const auto& count : Tarvo::allocationCounts()) {
      require(count.typeName != type || count.objects == 0, type);
    }
  }
  require(testsupport::openDescriptors() == descriptorsBefore,
          "as many descriptors are open as before");
}

void World::require(bool holds, const char* what, const Actor* actor,
                    std::source_location where) const {
  if (holds) return;
  std::fprintf(stderr, "%s:%u: does not hold: %s\nseed %llu, operation %lu", where.file_name(),
               where.line(), what, static_cast<unsigned long long>(seed), operations);
  if (actor != nullptr) {
    const auto index = std::find_if(actors.begin(), actors.end(),
                                    [&](const auto& each) { return each.get() == actor; });
    std::fprintf(stderr, ", actor %ld of kind %u, due in %g", index - actors.begin(), actor->kind,
                 actor->due - Tarvo::time());
  }
  std::fputs("\n", stderr);
  std::abort();
}

void World::run() {
  while (operations < limit) step();
  settle();
}

void World::step() {
  fuel = 30;
  if (!random.oneIn(4)) return operation(nullptr);
  ++operations;
  switch (random.below(12)) {
    case 0:
      return Platform::setFastForward(random.oneIn(2));
    case 1:
    case 2:
      if (library([this] { root->suspendedIs(!rootSuspended); })) rootSuspended = root->suspended();
      return;
    case 3:
      if (Group* group = pickGroup()) {
        auto& parent = const_cast<Tarvo::TaskImpl&>(group->owner->parentTask());
        library([&] { parent.taskSuspendedIs(!group->suspended); });
        group->suspended = parent.taskSuspended();
      }
      return;
    case 4: {
      Actor* actor = pickOne(live);
      if (actor == nullptr || actor->taskImpl == nullptr || !actor->mayRun()) return;
      actor->check();
      actor->wanted = true;
      actor->due = actor->latest = infinity;
      static Actor* one;
      one = actor;
      return catchThrown([](World&) { one->taskImpl->taskRunAndRecordFromTest(); });
    }
    case 5:
      return catchThrown([](World&) { Platform::doEventLoop(); });
    case 6:
      return catchThrown([](World&) { Platform::doEventLoopInWaitfor(0.5); });
    default:
      runLoop();
  }
}

void World::runLoop() {
  catchThrown([](World& world) {
    constexpr double limits[] = {0, 0, 1e-3, 1e-2, 0.1, 10};
    Platform::doEventLoop(limits[world.random.below(std::size(limits))]);
  });
}

/// What leaves the loop is what a body threw, and nothing that a body threw gets lost.
void World::catchThrown(void (*loop)(World&)) {
  try {
    library([&] { loop(*this); });
  } catch (const Thrown& exception) {
    require(exception.number == thrown, "the exception is the last one");
    ++caught;
  }
  require(caught == thrown, "each exception leaves the loop");
}

void World::act(Actor& self) {
  ++runs;
  for (unsigned n = random.below(4); n > 0 && fuel > 0; --n, --fuel) operation(&self);
  if (fuel == 0 || !random.oneIn(30)) return;
  if (!self.swallows()) ++thrown;
  throw Thrown{thrown};
}

Group* World::pickGroup() {
  std::vector<Group*> owned;
  for (const auto& group : allGroups) {
    if (group->owner != nullptr) owned.push_back(group.get());
  }
  return pickOne(owned);
}

void World::operation(Actor* self) {
  ++operations;
  switch (random.below(40)) {
    case 0:
    case 1:
      return make();
    case 2:
      if (Actor* actor = pickOne(live)) {
        std::erase(live, actor);
        actor->drop();
      }
      return;
    case 3:
      return groups();
    case 4:
      return testsupport::TestClock::advance(random.below(1000) * 1e-6);
    case 5:
      if (random.oneIn(30)) reports();
      return;
    case 6:
      if (channels.size() < mostChannels) channels.push_back(std::make_shared<Channel>());
      if (random.oneIn(4)) std::erase(channels, pickOne(channels));
      return;
    case 7:
    case 8:
    case 9:
    case 10:
      if (const auto channel = pickOne(channels)) {
        const int at = static_cast<int>(random.below(2));
        random.oneIn(3) ? channel->read(at, 1 + random.below(5000))
                        : channel->write(at, random.oneIn(50) ? SIZE_MAX : 1 + random.below(100));
      }
      return;
    default:
      if (Actor* actor = self != nullptr && !self->gone && random.oneIn(2) ? self : pickOne(live)) {
        actor->operate();
      }
  }
}

void World::make() {
  if (live.size() >= mostActors) return;
  const auto kind = static_cast<Kind>(random.below(kinds));
  Group* group = random.oneIn(2) ? pickGroup() : nullptr;
  library([&] {
    actors.push_back(std::make_unique<Actor>(*this, kind, group));
    live.push_back(actors.back().get());
  });
}

void World::groups() {
  Group* group = pickGroup();
  if (random.oneIn(3)) {
    if (group != nullptr && !group->suspended) group->owner.reset();
    return;
  }
  const auto priority = Tarvo::TaskPriority(static_cast<std::uint8_t>(random.below(5)));
  if (allGroups.size() < 1000 && random.oneIn(2)) {
    if (group != nullptr && group->parent != nullptr) group = group->parent;
    if (group != nullptr && group->owner == nullptr) group = nullptr;
    library([&] {
      auto made = std::make_shared<Tarvo::TaskGroup>(
          "group", priority, false,
          group == nullptr ? std::shared_ptr<Tarvo::TaskScheduler>(root) : group->owner);
      allGroups.push_back(std::make_unique<Group>(Group{std::move(made), group}));
    });
  } else if (group != nullptr) {
    library([&] {
      group->owner->tasksPermittedMultipleRunsIs(random.oneIn(2));
      group->owner->taskGroupQuantumIs(1 + random.below(1'000'000));
      group->owner->taskGroupForceYieldInTestIs(random.oneIn(4));
    });
  }
}

void World::reports() {
  library([this] {
    std::string report;
    switch (random.below(8)) {
      case 0:
        report = root->statsRenderTextForDebugToString();
        break;
      case 1:
        report = root->statsRenderJson();
        break;
      case 2:
        report = root->statsRenderPrometheus();
        break;
      case 3:
        report = root->timelineRenderJson();
        break;
      case 4:
        report = root->historyRenderTextForDebugToString() + " ";
        break;
      case 5:
        return root->historyEntryCountIs(random.below(200));
      case 6:
        return reportTasks.clear();
      default:
        if (reportTasks.size() < 3) reportTasks.push_back(root->statsResetAsync());
        return;
    }
    require(!report.empty(), "a report says something");
  });
}

/// The loop is about to wait with nothing ready: nothing that could be done may be left.
void World::checkWait(double seconds) {
  const bool before = std::exchange(Allocations::counted, false);
  constexpr double slip = 0.03;  // a tick of the wheel, two steps of the loop's clock, a rounding
  const double until = seconds < 0 ? infinity : Tarvo::time() + seconds;
  for (Actor* actor : live) {
    actor->check();
    require(!actor->wanted || !actor->mayRun(), "the loop waits and a task is wanted", actor);
    require(actor->latest + slip > until || actor->latest == infinity,
            "the loop waits beyond a timer", actor);
    require((!actor->wantsRead && !actor->wantsWrite) || !actor->mayRun(),
            "the loop waits and a direction is wanted", actor);
    for (int at = 0; actor->channel && at < 2; ++at) {
      require(!actor->reader(actor->channel.get(), at) || !actor->channel->unread(at),
              "the loop waits and there are bytes to read", actor);
    }
  }
  Allocations::counted = before;
}

/// Lets everything that is asked for happen, and looks whether it has.
void World::settle() {
  fuel = 0;
  Allocations::untilFailure = 0;
  if (rootSuspended) root->suspendedIs(rootSuspended = false);
  for (const auto& group : allGroups) {
    if (group->owner == nullptr || !group->suspended) continue;
    const_cast<Tarvo::TaskImpl&>(group->owner->parentTask()).taskSuspendedIs(false);
    group->suspended = false;
  }
  const auto hasReader = [this](const Channel* channel, int at) {
    return std::any_of(live.begin(), live.end(),
                       [=](const Actor* actor) { return actor->reader(channel, at); });
  };
  double wait = 0.1;
  for (const Actor* actor : live) {
    if (actor->latest < infinity) wait = std::max(wait, actor->latest - Tarvo::time() + 0.1);
    for (int at = 0; actor->channel && at < 2; ++at) {
      if (!hasReader(actor->channel.get(), at)) actor->channel->read(at, SIZE_MAX);
    }
  }
  static double seconds;
  seconds = wait;
  catchThrown([](World&) { Platform::doEventLoop(seconds); });
  catchThrown([](World&) { Platform::doEventLoop(); });  // a loop with a limit ends in the middle
  checkWait(-1);
  for (const Actor* actor : live) {
    require(!actor->channel || !actor->writes || !actor->mayRun(), "a writer is told", actor);
  }
  require(root->runnableTaskCount() == 0, "nothing is queued");
}

}  // namespace randomtest
