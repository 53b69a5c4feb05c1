#ifndef TARVO_BENCH_TIMERS_H
#define TARVO_BENCH_TIMERS_H

/// Rows of many pending timers, behind one face for this library and its peers: a number of timers
/// that can each be started, restarted and stopped, and a loop that runs until a number of them has
/// fired. The argument is how many there are.

#include <fmt/format.h>

#include <cstddef>
#include <memory>
#include <vector>

#include "Random.h"
#include "State.h"
#include "Tarvo/LibeventFactory.h"
#include "Tarvo/TaskScheduler.h"
#include "Tarvo/TimerWheel.h"

namespace bench {

struct TarvoWheel {
  struct Timer : Tarvo::TimerWheelEvent {
    void timeout() override { ++*fired; }
    std::size_t* fired = nullptr;
  };
  explicit TarvoWheel(std::size_t n) : timers(n) {
    for (Timer& timer : timers) timer.fired = &fired;
  }
  ~TarvoWheel() {
    for (Timer& timer : timers) timer.delTimeout(wheel);
  }
  void start(std::size_t i, double delay) { timers[i].setTimeout(wheel, delay); }
  void stop(std::size_t i) { timers[i].delTimeout(wheel); }
  void run(std::size_t count) {
    while (fired < count) Tarvo::Platform::doEventLoop(0.0);
  }

  std::shared_ptr<Tarvo::TimerWheel> wheel =
      Tarvo::getTimerWheelForTaskScheduler(Tarvo::Platform::eventPriorityDefault);
  std::size_t fired = 0;
  std::vector<Timer> timers;
};

/// Timer tasks with names of their own.
struct TimerTasks {
  struct Pending : Tarvo::TimerTask {
    using TimerTask::TimerTask;
    void taskExecute() override {}
  };

  explicit TimerTasks(std::size_t n) : tasks(n) {
    for (std::size_t i = 0; i < n; ++i) {
      tasks[i] = std::make_shared<Pending>(Tarvo::schedulerRootTarvo(), Tarvo::TaskPriority::normal,
                                           fmt::format("pending{}", i));
      tasks[i]->includeInCompletedTaskIs(false);
    }
  }
  ~TimerTasks() {
    tasks.clear();
    Tarvo::leFree();
  }
  void start(std::size_t i, double delay) { tasks[i]->scheduleTaskDelay(delay); }

  std::vector<std::shared_ptr<Pending>> tasks;
};

/// Any of them is taken at random, so that no cache holds those of a million.
template <typename Backend>
struct PendingTimers {
  explicit PendingTimers(State& state) : count(many(state)), timers(count) {
    for (std::size_t i = 0; i < count; ++i) timers.start(i, delay());
  }
  std::size_t any() { return random.below(count); }
  double delay() { return random.between(1000, 2000); }

  std::size_t count;
  Backend timers;
  RandomNumbers random;
};

template <typename Backend>
void StartStop(State& state) {
  PendingTimers<Backend> pending(state);
  for (auto _ : state) {
    const auto any = pending.any();
    pending.timers.stop(any);
    pending.timers.start(any, pending.delay());
  }
}

/// With another delay each time.
template <typename Backend>
void Rearm(State& state) {
  PendingTimers<Backend> pending(state);
  for (auto _ : state) pending.timers.start(pending.any(), pending.delay());
}

}  // namespace bench

#endif
