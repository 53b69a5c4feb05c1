#ifndef TARVO_BENCH_TIMERBACKENDS_H
#define TARVO_BENCH_TIMERBACKENDS_H

/// The timers of this library and of its peers behind one face: a number of timers that can each be
/// started, restarted and stopped, and a loop that runs until a number of them has fired.

#include <ev.h>
#include <event2/event.h>
#include <event2/event_struct.h>
#include <uv.h>

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <cstddef>
#include <memory>
#include <vector>

#include "Tarvo/LibeventFactory.h"
#include "Tarvo/TimerWheel.h"

namespace bench {

struct TarvoWheel {
  struct Timer : Tarvo::TimerWheelEvent {
    void timeout() override { ++*fired; }
    std::size_t* fired = nullptr;
  };
  static constexpr std::size_t bytes = sizeof(Tarvo::TimerWheelEvent);

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

/// libevent keeps plain timeouts in a heap, and common ones (equal delays) in queues.
template <bool Common>
struct Libevent {
  static constexpr std::size_t bytes = sizeof(event);

  explicit Libevent(std::size_t n) : timers(n) {
    for (event& ev : timers) {
      event_assign(
          &ev, base, -1, 0,
          [](evutil_socket_t, short, void* arg) { ++*static_cast<std::size_t*>(arg); }, &fired);
    }
  }
  ~Libevent() {
    for (event& ev : timers) event_del(&ev);
    event_base_free(base);
  }
  void start(std::size_t i, double delay) {
    timeval tv{
        static_cast<time_t>(delay),
        static_cast<suseconds_t>((delay - static_cast<double>(static_cast<time_t>(delay))) * 1e6)};
    if constexpr (Common) {
      event_add(&timers[i], event_base_init_common_timeout(base, &tv));
    } else {
      event_add(&timers[i], &tv);
    }
  }
  void stop(std::size_t i) { event_del(&timers[i]); }
  void run(std::size_t count) {
    while (fired < count) event_base_loop(base, EVLOOP_NONBLOCK);
  }

  event_base* base = Tarvo::leCreateBase();
  std::size_t fired = 0;
  std::vector<event> timers;
};

struct Libev {
  static constexpr std::size_t bytes = sizeof(ev_timer) + 16;  // with its place in the heap

  explicit Libev(std::size_t n) : timers(n) {
    for (ev_timer& timer : timers) {
      ev_timer_init(
          &timer,
          [](struct ev_loop*, ev_timer* self, int) { ++*static_cast<std::size_t*>(self->data); },
          0., 0.);
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
  void run(std::size_t count) {
    while (fired < count) ev_run(loop, EVRUN_NOWAIT);
  }

  struct ev_loop* loop = ev_loop_new(EVFLAG_AUTO);
  std::size_t fired = 0;
  std::vector<ev_timer> timers;
};

struct Libuv {
  static constexpr std::size_t bytes = sizeof(uv_timer_t);

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
    uv_timer_start(
        &timers[i], [](uv_timer_t* self) { ++*static_cast<std::size_t*>(self->data); },
        static_cast<std::uint64_t>(delay * 1e3), 0);
  }
  void stop(std::size_t i) { uv_timer_stop(&timers[i]); }
  void run(std::size_t count) {
    while (fired < count) uv_run(&loop, UV_RUN_NOWAIT);
  }

  uv_loop_t loop;
  std::size_t fired = 0;
  std::vector<uv_timer_t> timers;
};

struct Asio {
  static constexpr std::size_t bytes = sizeof(asio::steady_timer);  // and its pending operation

  explicit Asio(std::size_t n) {
    timers.reserve(n);
    for (std::size_t i = 0; i < n; ++i) timers.emplace_back(context);
  }
  // A cancelled wait is completed by the loop, which therefore belongs to the cost.
  void start(std::size_t i, double delay) {
    const std::chrono::nanoseconds after(static_cast<std::int64_t>(delay * 1e9));
    const bool cancelled = timers[i].expires_after(after) > 0;
    timers[i].async_wait([this](const asio::error_code& error) {
      if (!error) ++fired;
    });
    if (cancelled) context.poll();
  }
  void stop(std::size_t i) {
    timers[i].cancel();
    context.poll();
  }
  void run(std::size_t count) {
    while (fired < count) {
      context.restart();
      context.poll();
    }
  }

  asio::io_context context;
  std::size_t fired = 0;
  std::vector<asio::steady_timer> timers;
};

}  // namespace bench

#endif
