/// The ring of connections, served by this library and by its peers.

#include "Ring.h"

#include <event2/event.h>
#include <event2/event_struct.h>
#include <sys/epoll.h>
#include <uv.h>

#include <array>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>

namespace bench {

void points(benchmark::internal::Benchmark* b) {
  b->Args({100, 1})->Args({100, 50})->Args({1000, 1})->Args({1000, 100});
}
/// With one byte under way, for those whose growth is shown.
void pointsAndGrowth(benchmark::internal::Benchmark* b) {
  points(b);
  b->Args({1, 1})->Args({10, 1})->Args({10'000, 1});
}
BENCHMARK(TarvoFdTask)->Apply(pointsAndGrowth);
BENCHMARK(TarvoFdTaskDrained)->Apply(points);
BENCHMARK(TarvoFdControl)->Apply(points)->Args({1, 1});

/// What a peer keeps for a place.
template <typename Handle>
struct Station {
  static void serve(const void* station) {
    const auto* self = static_cast<const Station*>(station);
    self->ring.serve(self->place);
  }
  Ring& ring;
  std::size_t place;
  Handle handle{};
};
template <typename Handle>
std::vector<Station<Handle>> stations(Ring& ring) {
  std::vector<Station<Handle>> all;
  for (std::size_t i = 0; i < ring.size(); ++i) all.push_back({ring, i});
  return all;
}

void EpollLevel(State& state) {
  Ring ring(state);
  if (!ring.complete()) return;
  const int epoll = epoll_create1(0);
  for (std::size_t i = 0; i < ring.size(); ++i) {
    epoll_event interest{EPOLLIN, {.u64 = i}};
    if (epoll_ctl(epoll, EPOLL_CTL_ADD, ring.descriptor(i), &interest) != 0) std::abort();
  }
  bool on = true;
  ring.start([&] { on = false; });
  std::array<epoll_event, 128> ready;
  while (on) {
    const int count = epoll_wait(epoll, ready.data(), static_cast<int>(ready.size()), -1);
    for (int k = 0; k < count; ++k) ring.serve(ready[static_cast<std::size_t>(k)].data.u64);
  }
  close(epoll);
}
BENCHMARK(EpollLevel)->Apply(points);

void LibeventPersist(State& state) {
  Ring ring(state);
  if (!ring.complete()) return;
  event_base* base = Tarvo::leCreateBase();
  auto all = stations<event>(ring);
  for (auto& station : all) {
    event_assign(
        &station.handle, base, ring.descriptor(station.place), EV_READ | EV_PERSIST,
        [](evutil_socket_t, short, void* arg) { Station<event>::serve(arg); }, &station);
    event_add(&station.handle, nullptr);
  }
  ring.start([base] { event_base_loopbreak(base); });
  event_base_dispatch(base);
  for (auto& station : all) event_del(&station.handle);
  event_base_free(base);
}
BENCHMARK(LibeventPersist)->Apply(pointsAndGrowth);

void LibuvPoll(State& state) {
  Ring ring(state);
  if (!ring.complete()) return;
  uv_loop_t loop;
  uv_loop_init(&loop);
  auto all = stations<uv_poll_t>(ring);
  for (auto& station : all) {
    uv_poll_init(&loop, &station.handle, ring.descriptor(station.place));
    station.handle.data = &station;
    uv_poll_start(&station.handle, UV_READABLE,
                  [](uv_poll_t* handle, int, int) { Station<uv_poll_t>::serve(handle->data); });
  }
  ring.start([&loop] { uv_stop(&loop); });
  uv_run(&loop, UV_RUN_DEFAULT);
  for (auto& station : all) uv_close(reinterpret_cast<uv_handle_t*>(&station.handle), nullptr);
  uv_run(&loop, UV_RUN_DEFAULT);
  uv_loop_close(&loop);
}
BENCHMARK(LibuvPoll)->Apply(points);

/// Only waits are asynchronous; asio registers the descriptor anew for each of them.
void AsioWait(State& state) {
  struct Waiting {
    Waiting(asio::io_context& io, Ring& ofRing, std::size_t atPlace)
        : ring(ofRing), place(atPlace), descriptor(io, ofRing.descriptor(atPlace)) {}
    ~Waiting() { descriptor.release(); }  // the ring closes it
    void wait() {
      descriptor.async_wait(descriptor.wait_read, [this](const asio::error_code& error) {
        if (error) return;
        ring.serve(place);
        wait();
      });
    }
    Ring& ring;
    std::size_t place;
    asio::posix::stream_descriptor descriptor;
  };
  Ring ring(state);
  if (!ring.complete()) return;
  asio::io_context io(1);
  std::deque<Waiting> all;
  for (std::size_t i = 0; i < ring.size(); ++i) all.emplace_back(io, ring, i).wait();
  ring.start([&io] { io.stop(); });
  io.run();
}
BENCHMARK(AsioWait)->Apply(points);

}  // namespace bench
