/// What it costs to run a piece of work from the loop: a task through the root, beside a bare
/// callback of the event library and the idle callbacks of other loops. Every row counts runs.

#include <ev.h>
#include <glib.h>
#include <uv.h>

#include <asio/io_context.hpp>
#include <asio/ip/udp.hpp>
#include <asio/post.hpp>
#include <optional>

#include "Runs.h"

namespace bench {

void upToMillion(benchmark::internal::Benchmark* b) { b->RangeMultiplier(10)->Range(1, 1'000'000); }

BENCHMARK(RootTaskRun)->Apply(upToMillion)->Arg(2);
BENCHMARK(GroupMemberRun<>)->Name("GroupMemberRun")->Arg(1)->Arg(100);
BENCHMARK(ScheduleUnschedule);
BENCHMARK(CallbackRearmed);
BENCHMARK(LibeventCallback);

/// Making a task with a name that others have, and destroying it.
void TaskMade(State& state) {
  const LoopOfRow loop;
  const auto root = Tarvo::schedulerRootTarvo();
  const auto tasks = idleTasks(root, many(state));
  for (auto _ : state) {
    const auto task = std::make_shared<Idle>(root, TaskPriority::normal, "connection 0");
    task->includeInCompletedTaskIs(false);
  }
}
BENCHMARK(TaskMade)->Apply(upToMillion);

void LibuvIdle(State& state) {
  uv_loop_t loop;
  uv_loop_init(&loop);
  uv_idle_t idle;
  uv_idle_init(&loop, &idle);
  idle.data = &state;
  uv_idle_start(&idle, [](uv_idle_t* handle) {
    if (!static_cast<State*>(handle->data)->KeepRunning()) uv_idle_stop(handle);
  });
  uv_run(&loop, UV_RUN_DEFAULT);
  uv_close(reinterpret_cast<uv_handle_t*>(&idle), nullptr);
  uv_run(&loop, UV_RUN_DEFAULT);
  uv_loop_close(&loop);
}
BENCHMARK(LibuvIdle);

void LibevIdle(State& state) {
  struct ev_loop* loop = ev_loop_new(EVFLAG_AUTO);
  ev_idle idle;
  ev_idle_init(&idle, [](struct ev_loop* at, ev_idle* watcher, int) {
    if (!static_cast<State*>(watcher->data)->KeepRunning()) ev_idle_stop(at, watcher);
  });
  idle.data = &state;
  ev_idle_start(loop, &idle);
  ev_run(loop, 0);
  ev_loop_destroy(loop);
}
BENCHMARK(LibevIdle);

void GlibIdle(State& state) {
  GMainContext* context = g_main_context_new();
  GSource* source = g_idle_source_new();
  g_source_set_callback(
      source, [](gpointer data) -> gboolean { return static_cast<State*>(data)->KeepRunning(); },
      &state, nullptr);
  g_source_attach(source, context);
  while (!g_source_is_destroyed(source)) g_main_context_iteration(context, TRUE);
  g_source_unref(source);
  g_main_context_unref(context);
}
BENCHMARK(GlibIdle);

struct Posted {
  asio::io_context& io;
  State& state;
  void operator()() const {
    if (state.KeepRunning()) {
      asio::post(io, *this);
    } else {
      io.stop();
    }
  }
};

/// With a descriptor in use asio also asks the kernel, once for as many posts as are pending.
void AsioPost(State& state, bool withReactor) {
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

}  // namespace bench
