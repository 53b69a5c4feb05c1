/// Timers with a thousand to a million of them pending, of this library and of its peers, and timer
/// tasks.

#include <ev.h>
#include <event2/event.h>
#include <event2/event_struct.h>
#include <uv.h>

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <optional>

#include "Timers.h"

namespace bench {

void fireOne(void* fired) { ++*static_cast<std::size_t*>(fired); }

/// libevent keeps plain timeouts in a heap, and common ones (equal delays) in queues.
template <bool Common>
struct Libevent {
  explicit Libevent(std::size_t n) : timers(n) {
    const auto fire = [](evutil_socket_t, short, void* arg) { fireOne(arg); };
    for (event& ev : timers) event_assign(&ev, base, -1, 0, fire, &fired);
  }
  ~Libevent() {
    for (event& ev : timers) event_del(&ev);
    event_base_free(base);
  }
  void start(std::size_t i, double delay) {
    const auto microseconds = static_cast<long>(delay * 1e6);
    const timeval tv{microseconds / 1'000'000, microseconds % 1'000'000};
    event_add(&timers[i], Common ? event_base_init_common_timeout(base, &tv) : &tv);
  }
  void stop(std::size_t i) { event_del(&timers[i]); }
  void turn() { event_base_loop(base, EVLOOP_NONBLOCK); }

  event_base* base = Tarvo::leCreateBase();
  std::size_t fired = 0;
  std::vector<event> timers;
};

struct Libev {
  explicit Libev(std::size_t n) : timers(n) {
    for (ev_timer& timer : timers) {
      const auto fire = [](struct ev_loop*, ev_timer* self, int) { fireOne(self->data); };
      ev_timer_init(&timer, fire, 0., 0.);
      timer.data = &fired;
    }
  }
  ~Libev() {
    for (ev_timer& timer : timers) ev_timer_stop(loop, &timer);
    ev_loop_destroy(loop);
  }
  // The repeat is what ev_timer_again() moves a timer by; one that fires must not come again.
  void start(std::size_t i, double delay) {
    ev_timer& timer = timers[i];
    if (ev_is_active(&timer)) {
      timer.repeat = delay;
      ev_timer_again(loop, &timer);
      timer.repeat = 0;
    } else {
      ev_timer_set(&timer, delay, 0.);
      ev_timer_start(loop, &timer);
    }
  }
  void stop(std::size_t i) { ev_timer_stop(loop, &timers[i]); }
  void turn() { ev_run(loop, EVRUN_NOWAIT); }

  struct ev_loop* loop = ev_loop_new(EVFLAG_AUTO);
  std::size_t fired = 0;
  std::vector<ev_timer> timers;
};

struct Libuv {
  explicit Libuv(std::size_t n) : timers(n) {
    uv_loop_init(&loop);
    for (uv_timer_t& timer : timers) {
      uv_timer_init(&loop, &timer);
      timer.data = &fired;
    }
  }
  ~Libuv() {
    for (uv_timer_t& timer : timers) uv_close(reinterpret_cast<uv_handle_t*>(&timer), nullptr);
    uv_run(&loop, UV_RUN_DEFAULT);
    uv_loop_close(&loop);
  }
  void start(std::size_t i, double delay) {
    const auto milliseconds = static_cast<std::uint64_t>(delay * 1e3);
    uv_timer_start(
        &timers[i], [](uv_timer_t* self) { fireOne(self->data); }, milliseconds, 0);
  }
  void stop(std::size_t i) { uv_timer_stop(&timers[i]); }
  void turn() { uv_run(&loop, UV_RUN_NOWAIT); }

  uv_loop_t loop;
  std::size_t fired = 0;
  std::vector<uv_timer_t> timers;
};

struct Asio {
  explicit Asio(std::size_t n) {
    timers.reserve(n);
    for (std::size_t i = 0; i < n; ++i) timers.emplace_back(context);
  }
  // A cancelled wait is completed and freed by the loop, which therefore belongs to the cost; it
  // has its turn after every so many of them.
  void completeSome() {
    if (++waitsCancelled % 64 == 0) context.poll();
  }
  void start(std::size_t i, double delay) {
    const std::chrono::nanoseconds after(static_cast<std::int64_t>(delay * 1e9));
    const bool cancelled = timers[i].expires_after(after) > 0;
    timers[i].async_wait([this](const asio::error_code& error) {
      if (!error) ++fired;
    });
    if (cancelled) completeSome();
  }
  void stop(std::size_t i) {
    timers[i].cancel();
    completeSome();
  }
  void turn() {
    context.restart();
    context.poll();
  }

  asio::io_context context{1};
  std::size_t fired = 0, waitsCancelled = 0;
  std::vector<asio::steady_timer> timers;
};

using LibeventHeap = Libevent<false>;
using LibeventCommon = Libevent<true>;

/// Time per timer of one loop in which all of them are due.
template <typename Backend>
void Expire(State& state) {
  const auto n = many(state);
  RandomNumbers random;
  for (auto _ : state) {
    state.PauseTiming();
    std::optional<Backend> timers(n);
    for (std::size_t i = 0; i < n; ++i) timers->start(i, random.between(0.02, 0.04));
    const double due = Tarvo::time() + 0.05;
    while (Tarvo::time() < due) {
    }
    state.ResumeTiming();
    runUntilFired(*timers, n);
    state.PauseTiming();
    timers.reset();
    state.ResumeTiming();
  }
  using benchmark::Counter;
  state.counters["each"] =
      Counter(static_cast<double>(n), Counter::kIsIterationInvariantRate | Counter::kInvert);
}

void sizes(benchmark::internal::Benchmark* b) { b->RangeMultiplier(10)->Range(1000, 1'000'000); }
/// For those whose growth is shown.
void fewer(benchmark::internal::Benchmark* b) { b->Arg(1)->Arg(10)->Arg(100); }

#define TIMER_ROWS(Backend)                     \
  BENCHMARK(StartStop<Backend>)->Apply(sizes);  \
  BENCHMARK(Rearm<Backend>)->Apply(sizes);      \
  BENCHMARK(RearmEqual<Backend>)->Apply(sizes); \
  BENCHMARK(Expire<Backend>)->Apply(sizes)->Iterations(3);

TIMER_ROWS(TarvoWheel)
TIMER_ROWS(LibeventHeap)
TIMER_ROWS(Libev)
TIMER_ROWS(Libuv)
TIMER_ROWS(Asio)
BENCHMARK(RearmEqual<LibeventCommon>)->Apply(sizes);
BENCHMARK(Rearm<TimerTasks>)->Apply(sizes);
BENCHMARK(StartStop<TarvoWheel>)->Apply(fewer);
BENCHMARK(StartStop<LibeventHeap>)->Apply(fewer);

}  // namespace bench
