#ifndef TARVO_BENCH_TIMERS_H
#define TARVO_BENCH_TIMERS_H

/// Rows of many pending timers, behind one face for this library and its peers: a number of timers
/// that can each be started, restarted and stopped, and a loop that runs until a number of them has
/// fired. The argument is how many there are.

#include <cstdint>

#include "Runs.h"
#include "Tarvo/TimerWheel.h"

namespace bench {

/// Random numbers (the linear congruential generator of Knuth's MMIX), the same in every run, and
/// cheap enough to be made within a measurement, so that any of a million can be hit.
class RandomNumbers {
 public:
  /// Below n, which is at most 2^32.
  std::size_t below(std::size_t n) { return static_cast<std::size_t>((next() * n) >> 32U); }
  double between(double least, double most) {
    return least + (most - least) * static_cast<double>(next()) / 4294967296.0;
  }

 private:
  std::uint64_t next() {
    state_ = state_ * 6364136223846793005U + 1442695040888963407U;
    return state_ >> 32U;
  }
  std::uint64_t state_ = 1;
};

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
  void turn() { Tarvo::Platform::doEventLoop(0.0); }

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

template <typename Backend>
void runUntilFired(Backend& timers, std::size_t count) {
  while (timers.fired < count) timers.turn();
}

/// Any of them is taken at random, so that no cache holds those of a million.
template <typename Backend>
struct PendingTimers {
  PendingTimers(State& state, double leastDelay, double mostDelay)
      : count(many(state)), timers(count), least(leastDelay), most(mostDelay) {
    for (std::size_t i = 0; i < count; ++i) timers.start(i, delay());
  }
  std::size_t any() { return random.below(count); }
  double delay() { return random.between(least, most); }

  std::size_t count;
  Backend timers;
  double least, most;
  RandomNumbers random;
};

template <typename Backend>
void StartStop(State& state) {
  PendingTimers<Backend> pending(state, 1000, 2000);
  for (auto _ : state) {
    const auto any = pending.any();
    pending.timers.stop(any);
    pending.timers.start(any, pending.delay());
  }
}

template <typename Backend>
void rearm(State& state, double most) {
  PendingTimers<Backend> pending(state, 1000, most);
  for (auto _ : state) pending.timers.start(pending.any(), pending.delay());
}
/// With another delay each time, and with equal ones.
template <typename Backend>
void Rearm(State& state) {
  rearm<Backend>(state, 2000);
}
template <typename Backend>
void RearmEqual(State& state) {
  rearm<Backend>(state, 1000);
}

}  // namespace bench

#endif
