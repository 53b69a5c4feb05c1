#include <event2/event.h>
#include <event2/event_struct.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "Draw.h"
#include "InstructionCounts.h"
#include "Tarvo/LibeventFactory.h"
#include "Tarvo/TaskScheduler.h"
#include "Tarvo/TimerWheel.h"

namespace counts {

namespace {

namespace Platform = Tarvo::Platform;
using Tarvo::TaskPriority;

struct Again : Tarvo::Task {
  Again(std::shared_ptr<Tarvo::TaskScheduler> scheduler, std::size_t runs)
      : Task(std::move(scheduler), TaskPriority::normal, "again"), left(runs) {}
  void taskExecute() override {
    if (--left > 0) scheduleTask();
  }
  std::size_t left;
};

void runTask(std::size_t times) {
  const auto task = std::make_shared<Again>(Tarvo::schedulerRootTarvo(), times);
  task->scheduleTask();
  Platform::doEventLoop();
}

/// All runs within one quantum.
void runMember(std::size_t times) {
  const auto group = std::make_shared<Tarvo::TaskGroup>("group", TaskPriority::normal, false,
                                                        Tarvo::schedulerRootTarvo());
  group->taskGroupQuantumIs(std::chrono::seconds(1));
  const auto task = std::make_shared<Again>(group, times);
  task->scheduleTask();
  Platform::doEventLoop();
}

void scheduleAndUnschedule(std::size_t times) {
  const auto root = Tarvo::schedulerRootTarvo();
  const auto other = std::make_shared<Again>(root, 1);
  const auto task = std::make_shared<Again>(root, 1);
  other->scheduleTask();
  while (times-- > 0) {
    task->scheduleTask();
    task->unscheduleTask();
  }
}

/// A number of pending timers, of which any can be taken.
class Timers {
 public:
  explicit Timers(std::size_t n) : timers_(n) {
    for (auto& timer : timers_) {
      timer.fired = &fired_;
      start(timer);
    }
  }
  Timers(const Timers&) = delete;
  Timers& operator=(const Timers&) = delete;
  ~Timers() {
    for (auto& timer : timers_) stop(timer);
  }

  struct Timer : Tarvo::TimerWheelEvent {
    void timeout() override { ++*fired; }
    std::size_t* fired = nullptr;
  };
  Timer& any() { return timers_[draw_.below(timers_.size())]; }
  void start(Timer& timer) { timer.setTimeout(wheel_, draw_.delay(1, 100)); }
  void stop(Timer& timer) { timer.delTimeout(wheel_); }
  /// Lets all of them expire, and starts them again.
  void expireAll() {
    passSeconds(200);
    for (fired_ = 0; fired_ < timers_.size();) Platform::doEventLoop(0.0);
    for (auto& timer : timers_) start(timer);
  }

 private:
  std::shared_ptr<Tarvo::TimerWheel> wheel_ =
      Tarvo::getTimerWheelForTaskScheduler(Platform::eventPriorityDefault);
  bench::Draw draw_;
  std::size_t fired_ = 0;
  std::vector<Timer> timers_;
};

void startAndStopTimer(std::size_t times) {
  Timers timers(1000);
  while (times-- > 0) {
    auto& timer = timers.any();
    timers.stop(timer);
    timers.start(timer);
  }
}

void rearmTimer(std::size_t times) {
  Timers timers(1000);
  while (times-- > 0) timers.start(timers.any());
}

void expireTimer(std::size_t times) {
  constexpr std::size_t together = 100;
  Timers timers(together);
  for (std::size_t expired = 0; expired < times; expired += together) timers.expireAll();
}

void restartTimerTask(std::size_t times) {
  struct Pending : Tarvo::TimerTask {
    using TimerTask::TimerTask;
    void taskExecute() override {}
  };
  bench::Draw draw;
  std::vector<std::shared_ptr<Pending>> tasks(1000);
  for (auto& task : tasks) {
    task = std::make_shared<Pending>(Tarvo::schedulerRootTarvo(), TaskPriority::normal, "pending");
    task->scheduleTaskDelay(draw.delay(1, 100));
  }
  while (times-- > 0) tasks[draw.below(tasks.size())]->scheduleTaskDelay(draw.delay(1, 100));
}

void rearmCallback(std::size_t times) {
  struct Rearming : Platform::CallbackHandler {
    explicit Rearming(std::size_t runs) : left(runs) { control->requestCallback(); }
    void callback() override {
      if (--left > 0) control->requestCallback();
    }
    std::size_t left;
    std::shared_ptr<Platform::CallbackControl> control = Platform::getCallbackControl(this);
  } handler(times);
  Platform::doEventLoop();
}

void bareCallback(std::size_t times) {
  static constexpr timeval noDelay{0, 0};
  struct Bare {
    std::size_t left;
    event ev;
  } bare{times, {}};
  event_assign(
      &bare.ev, Tarvo::leInit(), -1, 0,
      [](evutil_socket_t, short, void* arg) {
        auto* self = static_cast<Bare*>(arg);
        if (--self->left > 0) event_add(&self->ev, &noDelay);
      },
      &bare);
  event_add(&bare.ev, &noDelay);
  event_base_dispatch(Tarvo::leInit());
}

/// A byte that goes to and fro between two connected sockets.
class Rally {
 public:
  explicit Rally(std::size_t passes) : left_(passes) {
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends_.data()) != 0) std::abort();
    if (write(ends_[0], "x", 1) != 1) std::abort();
  }
  Rally(const Rally&) = delete;
  Rally& operator=(const Rally&) = delete;
  ~Rally() {
    for (const int end : ends_) close(end);
  }
  int end(std::size_t i) const { return ends_[i]; }
  /// Takes the byte and passes it back; false when that was the last time.
  bool pass(int fd) {
    char byte = 0;
    if (read(fd, &byte, 1) != 1) std::abort();
    if (--left_ == 0) return false;
    if (write(fd, &byte, 1) != 1) std::abort();
    return true;
  }

 private:
  std::size_t left_;
  std::array<int, 2> ends_{};
};

void passByControl(std::size_t times) {
  struct Player : Platform::FdEventHandler {
    Player(Rally& inRally, std::size_t at) : rally(inRally) { control->setFd(rally.end(at)); }
    void readFdEvent(int fd) override {
      if (rally.pass(fd)) return;
      control->delFd();
      other->control->delFd();
    }
    void writeFdEvent(int) override {}
    Rally& rally;
    Player* other = nullptr;
    std::shared_ptr<Platform::FdControl> control = Platform::getFdControl(this);
  };
  Rally rally(times);
  Player first(rally, 0), second(rally, 1);
  first.other = &second;
  second.other = &first;
  Platform::doEventLoop();
}

void passByTask(std::size_t times) {
  struct Player : Tarvo::FileDescriptorTask {
    Player(Rally& inRally, std::size_t at)
        : FileDescriptorTask(Tarvo::schedulerRootTarvo(), TaskPriority::normal, "player"),
          rally(inRally),
          fd(rally.end(at)) {
      taskWatchFdIs(fd);
    }
    void taskExecuteReadable() override {
      if (rally.pass(fd)) return;
      taskWatchFdDel();
      other->taskWatchFdDel();
    }
    void taskExecuteWritable() override {}
    Rally& rally;
    int fd;
    Player* other = nullptr;
  };
  Rally rally(times);
  const auto first = std::make_shared<Player>(rally, 0);
  const auto second = std::make_shared<Player>(rally, 1);
  first->other = second.get();
  second->other = first.get();
  Platform::doEventLoop();
}

}  // namespace

std::vector<Path> loopPaths() {
  return {{"run of a task by the root", runTask},
          {"run of a group's member", runMember},
          {"schedule and unschedule", scheduleAndUnschedule},
          {"timer, start and stop", startAndStopTimer},
          {"timer, re-arm", rearmTimer},
          {"timer, start and expiry", expireTimer},
          {"timer task, restart", restartTimerTask},
          {"callback control, re-arm", rearmCallback},
          {"callback of libevent alone, re-arm, for comparison", bareCallback},
          {"event of a descriptor control", passByControl},
          {"event of a descriptor task", passByTask}};
}

}  // namespace counts
