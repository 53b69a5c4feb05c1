#include <algorithm>

#include "Tarvo/Allocator.h"
#include "random/World.h"

namespace randomtest {

namespace {

template <typename Base>
struct Acting : Base {
  Acting(std::shared_ptr<Tarvo::TaskScheduler> scheduler, Tarvo::TaskPriority priority,
         const std::string& name, Actor& itsActor)
      : Base(std::move(scheduler), priority, name), actor(itsActor) {}
  void taskExecute() override { actor.executed(); }
  void handleResetStats() override { actor.runCount = 0; }
  Actor& actor;
};

struct ActingFd : Tarvo::FileDescriptorTask {
  ActingFd(std::shared_ptr<Tarvo::TaskScheduler> scheduler, Tarvo::TaskPriority priority,
           const std::string& name, Actor& itsActor)
      : FileDescriptorTask(std::move(scheduler), priority, name), actor(itsActor) {}
  void taskExecuteReadable() override { actor.readFdEvent(taskWatchFd()); }
  void taskExecuteWritable() override { actor.writeFdEvent(taskWatchFd()); }
  Actor& actor;
};

}  // namespace

Actor::Actor(World& inWorld, Kind ofKind, Group* inGroup)
    : world(inWorld), kind(ofKind), group(inGroup), handles(inWorld.random.oneIn(2)) {
  build();
}

void Actor::build() {
  const std::shared_ptr<Tarvo::TaskScheduler> scheduler =
      group == nullptr ? std::shared_ptr<Tarvo::TaskScheduler>(world.root) : group->owner;
  const auto priority = Tarvo::TaskPriority(static_cast<std::uint8_t>(world.random.below(5)));
  const std::string name = "actor " + std::to_string(kind);
  const auto keep = [&](auto made, auto&... interfaces) {
    owner = made;
    ((interfaces = dynamic_cast<std::remove_reference_t<decltype(interfaces)>>(made.get())), ...);
  };
  const auto makeTask = [&]<typename Made>(std::type_identity<Made>) {
    return std::allocate_shared<Made>(Tarvo::Allocator<Made>(), scheduler, priority, name, *this);
  };
  switch (kind) {
    case task:
      return keep(makeTask(std::type_identity<Acting<Tarvo::Task>>()), taskImpl);
    case timerTask:
      return keep(makeTask(std::type_identity<Acting<Tarvo::TimerTask>>()), taskImpl, timer);
    case fdTask:
      return keep(makeTask(std::type_identity<ActingFd>()), descriptor);
    case taskCallback:
      return keep(Platform::getCallbackControl(this, scheduler, priority, name), taskImpl,
                  callbackControl);
    case taskTimer:
      return keep(Platform::getTimerControl(this, scheduler, priority, name), taskImpl, timer);
    case taskFd:
      return keep(Platform::getFdControl(this, scheduler, priority, name), descriptor);
    case loopCallback:
      return keep(Platform::getCallbackControl(this), callbackControl);
    case loopTimer:
      return keep(Platform::getTimerControl(
                      this, static_cast<Platform::EventPriority>(world.random.below(2))),
                  timerControl);
    case loopFd:
      return keep(Platform::getFdControl(this), fdControl);
    default:
      return keep(Platform::getTimerControl(this, world.wheel), timerControl);
  }
}

void Actor::drop() {
  check();
  gone = true;
  world.library([this] { owner.reset(); });
}

bool Actor::mayRun() const {
  return !gone && !suspended &&
         (!isTask() || (!world.rootSuspended && (group == nullptr || group->runs())));
}

template <typename Call>
void Actor::attempt(Call call) {
  if (!world.library(call)) resync();
}

/// After a failure that left the object as it was, or half-way: what it says holds.
void Actor::resync() {
  if (taskImpl != nullptr) {
    suspended = taskImpl->taskSuspended();
    wanted = taskImpl->taskStatus().taskOnRunQueue();
  }
  if (timer != nullptr && !timer->timerRunning()) due = latest = infinity;
  if (timerControl != nullptr && timerControl->remainingTimeout() == infinity) {
    due = latest = infinity;
  }
  if (callbackControl != nullptr) wanted = callbackControl->pendingCallback();
  if (descriptor != nullptr) {
    suspended = descriptor->taskSuspended();
    reads = descriptor->taskWatchReadable();
    writes = descriptor->taskWatchWritable();
    if (descriptor->taskWatchFd() < 0) channel.reset();
    wantsRead = wantsWrite = false;
  }
  if (fdControl != nullptr) {
    fdControl->delFd();
    channel.reset();
  }
}

void Actor::check() {
  const auto require = [this](bool holds, const char* what) { world.require(holds, what, this); };
  if (timer != nullptr && due < infinity && !timer->timerRunning()) {
    require(due <= Tarvo::time(), "a timer task's timer is gone before its time");
    due = latest = infinity;
    wanted = !suspended;
  }
  if (taskImpl != nullptr) {
    const auto status = taskImpl->taskStatus();
    require(status.taskOnRunQueue() == wanted, "a task is queued when it is wanted");
    require(status.taskSuspended() == suspended, "a task is suspended when it was told so");
    if (kind < fdTask) require(taskImpl->taskRunCount() == runCount, "each run is counted");
  }
  if (timer != nullptr) require(timer->timerRunning() == (due < infinity), "a timer task's timer");
  if (timerControl != nullptr) {
    require((timerControl->remainingTimeout() < infinity) == (due < infinity), "a timer is armed");
  }
  if (callbackControl != nullptr) {
    require(callbackControl->pendingCallback() == wanted, "a callback is pending when wanted");
  }
  if (descriptor != nullptr) {
    require(descriptor->taskWatchReadable() == reads, "reading is watched as told");
    require(descriptor->taskWatchWritable() == writes, "writing is watched as told");
    require(!suspended || !descriptor->taskScheduled(), "a suspended task is not queued");
  }
}

// What is called.

void Actor::run() {
  struct Uncounted {
    ~Uncounted() { Allocations::counted = before; }
    const bool before = std::exchange(Allocations::counted, false);
  } const uncounted;
  world.require(mayRun(), "nothing runs while suspended or after its end", this);
  ++runCount;
  world.act(*this);
}

void Actor::executed() {
  const double early = kind == loopTimer ? 0.005 : 0;  // the loop's clock has steps of 4 ms
  world.require(wanted || due <= Tarvo::time() + early, "what runs was wanted and is due", this);
  wanted = false;
  due = latest = infinity;
  run();
}

void Actor::readFdEvent(int fd) {
  world.require(reads, "a reading run is watched", this);
  world.require(fd == (channel ? channel->ends[side] : -1), "it reads its descriptor", this);
  wantsRead = false;
  const bool all = world.fuel == 0 || world.random.oneIn(2);
  if (channel) channel->read(side, all ? SIZE_MAX : 1 + world.random.below(100));
  run();
}

void Actor::writeFdEvent(int fd) {
  world.require(writes || wantsWrite, "a writing run was asked for", this);
  world.require(fd == (channel ? channel->ends[side] : -1), "it writes to its descriptor", this);
  writes = wantsWrite = false;
  if (channel && world.fuel > 0) {
    channel->write(side, world.random.oneIn(50) ? SIZE_MAX : 1 + world.random.below(100));
  }
  run();
}

// What is done to it.

void Actor::operate() {
  check();
  switch (kind) {
    case task:
    case taskCallback:
      operateTask();
      break;
    case timerTask:
    case taskTimer:
      operateTimerTask();
      break;
    case loopCallback:
      operateCallback();
      break;
    case loopTimer:
    case wheelTimer:
      operateTimerControl();
      break;
    default:
      operateDescriptor();
  }
  if (!gone) check();
}

void Actor::suspend(bool on) {
  if (on != suspended) {
    wantsRead = !on && reads && descriptor != nullptr;
    wanted = !on && taskImpl != nullptr && due == infinity;
  }
  suspended = on;
  attempt([=, this] {
    taskImpl != nullptr ? taskImpl->taskSuspendedIs(on) : descriptor->taskSuspendedIs(on);
  });
}

void Actor::settings() {
  const auto ratio = static_cast<unsigned char>(world.random.oneIn(4) ? world.random.below(4) : 0);
  const Tarvo::TaskTimeDuration quantum = 1 + world.random.below(50'000'000);
  const auto set = [&](auto& of) {
    of.taskTestYieldRatioIs(ratio);
    of.taskQuantumIs(quantum);
    of.taskStatsNameIs("name " + std::to_string(ratio));
  };
  attempt([&] { taskImpl != nullptr ? set(*taskImpl) : set(*descriptor); });
}

void Actor::operateTask() {
  switch (world.random.below(8)) {
    case 0:
      return settings();
    case 1:
      return suspend(!suspended || world.random.oneIn(4));
    case 2:
      return suspend(false);
    case 3:
      wanted = false;
      return attempt([this] { taskImpl->unscheduleTask(); });
    default:
      expectAt(0, 0, 0);
      return attempt([this] { taskImpl->scheduleTask(); });
  }
}

void Actor::expectAt(double from, double delay, double longest) {
  wanted = delay == 0 && !suspended;
  due = delay == 0 || delay == infinity ? infinity : from + delay;
  latest = due == infinity ? infinity : from + longest;
}

void Actor::operateTimerTask() {
  const double now = Tarvo::time();
  const double delay = world.random.delay();
  const auto percent = static_cast<unsigned char>(world.random.below(100));
  switch (world.random.below(7)) {
    case 0:
      return operateTask();
    case 1:
      expectAt(now, infinity, 0);
      return attempt([this] { timer->stopTimerTask(); });
    case 2:
      if (delay < 0) return;
      expectAt(now, delay, delay * (1 + percent / 100.0));
      return attempt([=, this] { timer->scheduleTaskJitterUp(delay, percent); });
    case 3:
      if (delay < 0) return;
      expectAt(now, delay * (1 - percent / 100.0 - 1e-12), delay);
      return attempt([=, this] { timer->scheduleTaskJitterDown(delay, percent); });
    case 4:
      if (delay == infinity) return;
      if (!wanted && delay == 0) expectAt(now, 0, 0);
      if (!wanted && now + delay <= due && delay != 0) expectAt(now, delay, delay);
      return attempt([=, this] { timer->scheduleTaskLowestDelay(delay); });
    case 5: {
      const auto exact = std::chrono::nanoseconds(std::llround(std::min(delay, 1e3) * 1e9));
      expectAt(now, std::min(delay, 1e3), std::min(delay, 1e3));
      return attempt([=, this] { timer->scheduleTaskDelay(exact); });
    }
    default:
      expectAt(now, delay, delay);
      return attempt([=, this] { timer->scheduleTaskDelay(delay); });
  }
}

void Actor::operateTimerControl() {
  const double delay = world.random.oneIn(3) ? infinity : world.random.delay();
  due = latest = Tarvo::time() + delay;
  attempt([=, this] {
    delay == infinity ? timerControl->delTimeout() : timerControl->setTimeout(delay);
  });
}

void Actor::operateCallback() {
  wanted = !world.random.oneIn(3);
  attempt(
      [this] { wanted ? callbackControl->requestCallback() : callbackControl->cancelCallback(); });
}

void Actor::bind(const std::shared_ptr<Channel>& to, int at) {
  if (to == channel && at == side && descriptor != nullptr) return;
  const auto before = std::exchange(channel, to);  // to be closed later than it is forgotten
  side = at;
  wantsRead = wantsWrite = false;
  if (fdControl != nullptr) reads = choseReads, writes = choseWrites;
  const int fd = to ? to->ends[at] : -1;
  attempt([=, this] {
    if (descriptor != nullptr)
      return to ? descriptor->taskWatchFdIs(fd) : descriptor->taskWatchFdDel();
    to ? fdControl->setFd(fd) : fdControl->delFd();
  });
}

void Actor::operateDescriptor() {
  const bool on = !world.random.oneIn(4);
  switch (world.random.below(descriptor == nullptr ? 5 : 9)) {
    case 0:
      return bind(on ? world.pickOne(world.channels) : nullptr,
                  static_cast<int>(world.random.below(2)));
    case 1:
    case 2:
      wantsRead = wantsRead && on;
      reads = choseReads = on;
      return attempt([=, this] {
        descriptor ? descriptor->taskWatchReadableIs(on) : fdControl->setReads(on);
      });
    case 3:
      wantsWrite = wantsWrite && (on || !writes);
      writes = choseWrites = on;
      return attempt([=, this] {
        descriptor ? descriptor->taskWatchWritableIs(on) : fdControl->setWrites(on);
      });
    case 4:
      if (descriptor != nullptr) return settings();
      reads = writes = false;
      return attempt([this] { fdControl->clearEvents(); });
    case 5:
      return suspend(!suspended || world.random.oneIn(4));
    case 6:
      return suspend(false);
    case 7:
      if (!reads) return;
      wantsRead = !suspended;
      return attempt([this] { descriptor->scheduleTaskReadable(); });
    default:
      wantsWrite = true;
      return attempt([this] { descriptor->scheduleTaskWritable(); });
  }
}

}  // namespace randomtest
