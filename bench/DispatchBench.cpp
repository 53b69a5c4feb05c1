/// What it costs to run a piece of work from the loop: a task through the root, beside a bare
/// callback of the event library and the idle callbacks of other loops. Every row counts runs.

#include <benchmark/benchmark.h>
#include <ev.h>
#include <event2/event.h>
#include <event2/event_struct.h>
#include <glib.h>
#include <malloc.h>
#include <uv.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/ip/udp.hpp>
#include <asio/post.hpp>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Tarvo/LibeventFactory.h"
#include "Tarvo/TaskScheduler.h"

namespace {

using Tarvo::TaskPriority;
using Tarvo::Platform::doEventLoop;

/// Tells all of several tasks when the benchmark has enough.
struct Rounds {
  bool next() { return on && (on = state.KeepRunning()); }
  benchmark::State& state;
  bool on = true;
};

/// Goes on until there are no more rounds.
struct Again : Tarvo::Task {
  Again(TaskPriority priority, Rounds& benchRounds, const std::string& name = "again",
        std::shared_ptr<Tarvo::TaskScheduler> scheduler = Tarvo::schedulerRootTarvo())
      : Task(std::move(scheduler), priority, name), rounds(benchRounds) {}
  void taskExecute() override {
    if (rounds.next()) scheduleTask();
  }
  Rounds& rounds;
};

/// Leaves nothing for the next row.
void endThread() { Tarvo::leFree(); }

void RootTaskRun(benchmark::State& state) {
  Rounds rounds{state};
  {
    const auto task = std::make_shared<Again>(TaskPriority::normal, rounds);
    task->scheduleTask();
    doEventLoop();
  }
  endThread();
}
BENCHMARK(RootTaskRun);

struct Bare {
  benchmark::State& state;
  event ev;
};
constexpr timeval noDelay{0, 0};

void LibeventCallback(benchmark::State& state) {
  Bare bare{state, {}};
  event_assign(
      &bare.ev, Tarvo::leInit(), -1, 0,
      [](evutil_socket_t, short, void* arg) {
        auto* self = static_cast<Bare*>(arg);
        if (self->state.KeepRunning()) event_add(&self->ev, &noDelay);
      },
      &bare);
  event_add(&bare.ev, &noDelay);
  event_base_dispatch(Tarvo::leInit());
  endThread();
}
BENCHMARK(LibeventCallback);

void LibuvIdle(benchmark::State& state) {
  uv_loop_t loop;
  uv_loop_init(&loop);
  uv_idle_t idle;
  uv_idle_init(&loop, &idle);
  idle.data = &state;
  uv_idle_start(&idle, [](uv_idle_t* handle) {
    if (!static_cast<benchmark::State*>(handle->data)->KeepRunning()) uv_idle_stop(handle);
  });
  uv_run(&loop, UV_RUN_DEFAULT);
  uv_close(reinterpret_cast<uv_handle_t*>(&idle), nullptr);
  uv_run(&loop, UV_RUN_DEFAULT);
  uv_loop_close(&loop);
}
BENCHMARK(LibuvIdle);

void LibevIdle(benchmark::State& state) {
  struct ev_loop* loop = ev_loop_new(EVFLAG_AUTO);
  ev_idle idle;
  ev_idle_init(&idle, [](struct ev_loop* at, ev_idle* watcher, int) {
    if (!static_cast<benchmark::State*>(watcher->data)->KeepRunning()) ev_idle_stop(at, watcher);
  });
  idle.data = &state;
  ev_idle_start(loop, &idle);
  ev_run(loop, 0);
  ev_loop_destroy(loop);
}
BENCHMARK(LibevIdle);

void GlibIdle(benchmark::State& state) {
  GMainContext* context = g_main_context_new();
  struct Idle {
    benchmark::State& state;
    bool done;
  } idle{state, false};
  GSource* source = g_idle_source_new();
  g_source_set_callback(
      source,
      [](gpointer data) -> gboolean {
        auto* self = static_cast<Idle*>(data);
        self->done = !self->state.KeepRunning();
        return self->done ? G_SOURCE_REMOVE : G_SOURCE_CONTINUE;
      },
      &idle, nullptr);
  g_source_attach(source, context);
  while (!idle.done) g_main_context_iteration(context, TRUE);
  g_source_unref(source);
  g_main_context_unref(context);
}
BENCHMARK(GlibIdle);

struct Posted {
  asio::io_context& io;
  benchmark::State& state;
  void operator()() const {
    if (state.KeepRunning()) {
      asio::post(io, *this);
    } else {
      io.stop();
    }
  }
};

/// With a descriptor in use asio also asks the kernel, once for as many posts as are pending.
void AsioPost(benchmark::State& state, bool withReactor) {
  asio::io_context io(1);
  std::optional<asio::ip::udp::socket> socket;  // the mere object brings the reactor with it
  char byte = 0;
  if (withReactor) {
    socket.emplace(io, asio::ip::udp::endpoint(asio::ip::address_v4::loopback(), 0));
    socket->async_receive(asio::buffer(&byte, 1), [](const std::error_code&, std::size_t) {});
  }
  for (int i = 0; i < state.range(0); ++i) asio::post(io, Posted{io, state});
  io.run();
}
BENCHMARK_CAPTURE(AsioPost, alone, false)->Arg(1);
BENCHMARK_CAPTURE(AsioPost, withReactor, true)->Arg(1)->Arg(100);

/// So many runnable tasks, spread over the priorities.
void RootTaskRunOfMany(benchmark::State& state) {
  Rounds rounds{state};
  {
    std::vector<std::shared_ptr<Again>> tasks;
    for (int i = 0; i < state.range(0); ++i) {
      const TaskPriority priority(static_cast<std::uint8_t>(1 + i % 3));
      tasks.push_back(std::make_shared<Again>(priority, rounds, fmt::format("again{}", i)));
      tasks.back()->scheduleTask();
    }
    doEventLoop();
    for (auto& task : tasks) task->includeInCompletedTaskIs(false);
  }
  endThread();
}
BENCHMARK(RootTaskRunOfMany)->Arg(2)->Arg(100)->Arg(10'000);

/// Members of one group, which runs them one after the other until its quantum is used up.
void GroupMemberRun(benchmark::State& state) {
  Rounds rounds{state};
  {
    const auto group = std::make_shared<Tarvo::TaskGroup>("group", TaskPriority::normal, false,
                                                          Tarvo::schedulerRootTarvo());
    std::vector<std::shared_ptr<Again>> members;
    for (int i = 0; i < state.range(0); ++i) {
      members.push_back(
          std::make_shared<Again>(TaskPriority::normal, rounds, fmt::format("member{}", i), group));
      members.back()->scheduleTask();
    }
    doEventLoop();
  }
  endThread();
}
BENCHMARK(GroupMemberRun)->Arg(1)->Arg(100);

/// Puts a task on the queue and takes it off again, among others.
void ScheduleUnschedule(benchmark::State& state) {
  Rounds rounds{state};
  {
    const auto other = std::make_shared<Again>(TaskPriority::normal, rounds);
    const auto task = std::make_shared<Again>(TaskPriority::normal, rounds);
    other->scheduleTask();
    for (auto _ : state) {
      task->scheduleTask();
      task->unscheduleTask();
    }
  }
  endThread();
}
BENCHMARK(ScheduleUnschedule);

/// Memory of tasks that wait for something, each with a name of its own.
void IdleTasks(benchmark::State& state) {
  struct Idle : Tarvo::Task {
    using Task::Task;
    void taskExecute() override {}
  };
  const auto n = static_cast<std::size_t>(state.range(0));
  const auto root = Tarvo::schedulerRootTarvoNonShared("bench");
  for (auto _ : state) {
    std::vector<std::shared_ptr<Idle>> tasks(n);
    const auto before = mallinfo2();
    for (std::size_t i = 0; i < n; ++i) {
      tasks[i] = std::make_shared<Idle>(root, TaskPriority::normal, fmt::format("c{}", i));
      tasks[i]->includeInCompletedTaskIs(false);
    }
    const auto after = mallinfo2();
    const auto bytes = after.uordblks + after.hblkhd - before.uordblks - before.hblkhd;
    state.counters["bytes_per_task"] = static_cast<double>(bytes) / static_cast<double>(n);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(IdleTasks)->Arg(1'000'000)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
