#ifndef TARVO_BENCH_RUNS_H
#define TARVO_BENCH_RUNS_H

/// Rows that run a piece of work from the loop again and again: tasks, members of a group and
/// handlers, and libevent's own callback. One iteration is one run.

#include <event2/event.h>
#include <event2/event_struct.h>
#include <fmt/format.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "State.h"
#include "Tarvo/LibeventFactory.h"
#include "Tarvo/TaskScheduler.h"

namespace bench {

using Tarvo::TaskPriority;

/// The loop of a row, declared first in it: nothing is left for the next one.
struct LoopOfRow {
  ~LoopOfRow() { Tarvo::leFree(); }
};

/// Tells all of several tasks when the row has enough.
struct Rounds {
  bool next() { return on && (on = state.KeepRunning()); }
  State& state;
  bool on = true;
};

/// Goes on until there are no more rounds.
struct Again : Tarvo::Task {
  Again(std::shared_ptr<Tarvo::TaskScheduler> scheduler, TaskPriority priority, Rounds& ofAll,
        std::size_t number)
      : Task(std::move(scheduler), priority, fmt::format("again{}", number)), rounds(ofAll) {
    includeInCompletedTaskIs(false);
  }
  void taskExecute() override {
    if (rounds.next()) scheduleTask();
  }
  Rounds& rounds;
};

struct Idle : Tarvo::Task {
  using Task::Task;
  void taskExecute() override { taskWorkCountInc(1); }
};

/// That wait for something, each with a name of its own.
inline std::vector<std::shared_ptr<Idle>> idleTasks(
    const std::shared_ptr<Tarvo::TaskScheduler>& root, std::size_t n) {
  std::vector<std::shared_ptr<Idle>> tasks(n);
  for (std::size_t i = 0; i < n; ++i) {
    tasks[i] = std::make_shared<Idle>(root, TaskPriority::normal, fmt::format("connection {}", i));
    tasks[i]->includeInCompletedTaskIs(false);
  }
  return tasks;
}

/// So many runnable tasks, spread over `priorities`.
inline void runTasks(State& state, const std::shared_ptr<Tarvo::TaskScheduler>& scheduler,
                     std::size_t priorities) {
  Rounds rounds{state};
  std::vector<std::shared_ptr<Again>> tasks(many(state));
  for (std::size_t i = 0; i < tasks.size(); ++i) {
    const TaskPriority priority(static_cast<std::uint8_t>(1 + i % priorities));
    tasks[i] = std::make_shared<Again>(scheduler, priority, rounds, i);
    tasks[i]->scheduleTask();
  }
  Tarvo::Platform::doEventLoop();
}

inline void RootTaskRun(State& state) {
  const LoopOfRow loop;
  runTasks(state, Tarvo::schedulerRootTarvo(), 3);
}

/// Members of one group, which runs them one after the other until its quantum is used up.
template <typename... Quantum>
void GroupMemberRun(State& state, Quantum... quantum) {
  const LoopOfRow loop;
  const auto group = std::make_shared<Tarvo::TaskGroup>("group", TaskPriority::normal, false,
                                                        Tarvo::schedulerRootTarvo());
  (group->taskGroupQuantumIs(quantum), ...);
  runTasks(state, group, 1);
}

/// Onto the queue and off again, beside another task.
inline void ScheduleUnschedule(State& state) {
  const LoopOfRow loop;
  const auto root = Tarvo::schedulerRootTarvo();
  Rounds rounds{state};
  const auto other = std::make_shared<Again>(root, TaskPriority::normal, rounds, 0);
  const auto task = std::make_shared<Again>(root, TaskPriority::normal, rounds, 1);
  other->scheduleTask();
  for (auto _ : state) {
    task->scheduleTask();
    task->unscheduleTask();
  }
}

inline void CallbackRearmed(State& state) {
  const LoopOfRow loop;
  struct Rearming : Tarvo::Platform::CallbackHandler {
    explicit Rearming(State& ofRow) : state(ofRow) { control->requestCallback(); }
    void callback() override {
      if (state.KeepRunning()) control->requestCallback();
    }
    State& state;
    std::shared_ptr<Tarvo::Platform::CallbackControl> control =
        Tarvo::Platform::getCallbackControl(this);
  } handler(state);
  Tarvo::Platform::doEventLoop();
}

inline void LibeventCallback(State& state) {
  const LoopOfRow loop;
  static constexpr timeval noDelay{0, 0};
  struct Bare {
    State& state;
    event ev;
  } bare{state, {}};
  event_assign(
      &bare.ev, Tarvo::leInit(), -1, 0,
      [](evutil_socket_t, short, void* arg) {
        auto* self = static_cast<Bare*>(arg);
        if (self->state.KeepRunning()) event_add(&self->ev, &noDelay);
      },
      &bare);
  event_add(&bare.ev, &noDelay);
  event_base_dispatch(Tarvo::leInit());
}

}  // namespace bench

#endif
