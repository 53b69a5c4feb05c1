/// Bytes that travel around a ring of connections, most of which are silent: each row serves the
/// same descriptors in its own way and makes the same two system calls for an event.
/// The arguments are the number of connections and the number of bytes under way.

#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <event2/event_struct.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <uv.h>

#include <array>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <cstdlib>
#include <deque>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "Descriptors.h"
#include "Tarvo/LibeventFactory.h"
#include "Tarvo/TaskScheduler.h"

namespace {

namespace Platform = Tarvo::Platform;

/// Whether the process may have so many descriptors, perhaps by raising its own limit.
bool roomFor(std::size_t descriptors) {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return false;
  if (limit.rlim_cur >= descriptors) return true;
  limit.rlim_cur = limit.rlim_max;
  return limit.rlim_cur >= descriptors && setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

class Ring {
 public:
  explicit Ring(benchmark::State& state)
      : state_(state),
        size_(static_cast<std::size_t>(state.range(0))),
        bytes_(static_cast<std::size_t>(state.range(1))) {
    constexpr std::size_t others = 64;  // what the loops and the process itself need
    if (!roomFor(2 * size_ + others)) {
      state.SkipWithError(bench::descriptorLimitTooLow);
      return;
    }
    pairs_.reserve(size_);
    while (pairs_.size() < size_) {
      std::array<int, 2> ends;
      if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends.data()) != 0) {
        state.SkipWithError(bench::whyNoDescriptor());
        return;
      }
      pairs_.push_back(ends);
    }
  }
  Ring(const Ring&) = delete;
  Ring& operator=(const Ring&) = delete;
  ~Ring() {
    for (const auto& [reading, writing] : pairs_) {
      close(reading);
      close(writing);
    }
  }

  bool complete() const { return pairs_.size() == size_; }
  std::size_t size() const { return size_; }
  int readingEnd(std::size_t i) const { return pairs_[i][0]; }

  /// Sends the bytes off; `end` is called when the benchmark has enough.
  void start(std::function<void()> end) {
    end_ = std::move(end);
    for (std::size_t i = 0; i < bytes_; ++i) pass(i * size_ / bytes_);
  }

  /// What every row does when connection `i` can be read.
  void serve(std::size_t i) {
    char byte;
    if (read(readingEnd(i), &byte, 1) != 1) std::abort();
    if (!on_) return;
    if (state_.KeepRunning()) {
      pass(i + 1 == size_ ? 0 : i + 1);
    } else {
      on_ = false;
      end_();
    }
  }

 private:
  void pass(std::size_t to) {
    if (write(pairs_[to][1], "x", 1) != 1) std::abort();
  }

  benchmark::State& state_;
  std::size_t size_;
  std::size_t bytes_;
  std::vector<std::array<int, 2>> pairs_;
  std::function<void()> end_;
  bool on_ = true;
};

void points(benchmark::internal::Benchmark* b) {
  b->Args({100, 1})->Args({100, 50})->Args({1000, 1})->Args({1000, 100});
}

void EpollLevel(benchmark::State& state) {
  Ring ring(state);
  if (!ring.complete()) return;
  const int epoll = epoll_create1(0);
  for (std::size_t i = 0; i < ring.size(); ++i) {
    epoll_event interest{EPOLLIN, {.u64 = i}};
    if (epoll_ctl(epoll, EPOLL_CTL_ADD, ring.readingEnd(i), &interest) != 0) std::abort();
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

void LibeventPersist(benchmark::State& state) {
  struct Station {
    Ring& ring;
    std::size_t place;
    event ev{};
  };
  Ring ring(state);
  if (!ring.complete()) return;
  event_base* base = Tarvo::leCreateBase();
  std::vector<Station> stations;
  stations.reserve(ring.size());
  for (std::size_t i = 0; i < ring.size(); ++i) {
    Station& station = stations.emplace_back(ring, i);
    event_assign(
        &station.ev, base, ring.readingEnd(i), EV_READ | EV_PERSIST,
        [](evutil_socket_t, short, void* arg) {
          const auto* self = static_cast<Station*>(arg);
          self->ring.serve(self->place);
        },
        &station);
    event_add(&station.ev, nullptr);
  }
  ring.start([base] { event_base_loopbreak(base); });
  event_base_dispatch(base);
  for (Station& station : stations) event_del(&station.ev);
  event_base_free(base);
}
BENCHMARK(LibeventPersist)->Apply(points);

void LibuvPoll(benchmark::State& state) {
  struct Station {
    Ring& ring;
    std::size_t place;
    uv_poll_t handle{};
  };
  Ring ring(state);
  if (!ring.complete()) return;
  uv_loop_t loop;
  uv_loop_init(&loop);
  std::vector<Station> stations;
  stations.reserve(ring.size());
  for (std::size_t i = 0; i < ring.size(); ++i) {
    Station& station = stations.emplace_back(ring, i);
    uv_poll_init(&loop, &station.handle, ring.readingEnd(i));
    station.handle.data = &station;
    uv_poll_start(&station.handle, UV_READABLE, [](uv_poll_t* handle, int, int) {
      const auto* self = static_cast<Station*>(handle->data);
      self->ring.serve(self->place);
    });
  }
  ring.start([&loop] { uv_stop(&loop); });
  uv_run(&loop, UV_RUN_DEFAULT);
  for (Station& station : stations)
    uv_close(reinterpret_cast<uv_handle_t*>(&station.handle), nullptr);
  uv_run(&loop, UV_RUN_DEFAULT);
  uv_loop_close(&loop);
}
BENCHMARK(LibuvPoll)->Apply(points);

/// Only waits are asynchronous; asio registers the descriptor anew for each of them.
void AsioWait(benchmark::State& state) {
  struct Station {
    Station(asio::io_context& io, Ring& ofRing, std::size_t atPlace)
        : ring(ofRing), place(atPlace), descriptor(io, ofRing.readingEnd(atPlace)) {}
    ~Station() { descriptor.release(); }  // the ring closes it
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
  std::deque<Station> stations;
  for (std::size_t i = 0; i < ring.size(); ++i) stations.emplace_back(io, ring, i).wait();
  ring.start([&io] { io.stop(); });
  io.run();
}
BENCHMARK(AsioWait)->Apply(points);

void TarvoFdControl(benchmark::State& state) {
  struct Station : Platform::FdEventHandler {
    Station(Ring& ofRing, std::size_t atPlace) : ring(ofRing), place(atPlace) {
      control->setFd(ring.readingEnd(place));
    }
    void readFdEvent(int) override { ring.serve(place); }
    void writeFdEvent(int) override {}
    Ring& ring;
    std::size_t place;
    std::shared_ptr<Platform::FdControl> control = Platform::getFdControl(this);
  };
  Ring ring(state);
  if (!ring.complete()) return;
  {
    std::deque<Station> stations;
    for (std::size_t i = 0; i < ring.size(); ++i) stations.emplace_back(ring, i);
    ring.start([&stations] {
      for (Station& station : stations) station.control->delFd();
    });
    Platform::doEventLoop();
  }
  Tarvo::leFree();
}
BENCHMARK(TarvoFdControl)->Apply(points);

void TarvoFdTask(benchmark::State& state) {
  struct Station : Tarvo::FileDescriptorTask {
    Station(Ring& ofRing, std::size_t atPlace)
        : FileDescriptorTask(Tarvo::schedulerRootTarvo(), Tarvo::TaskPriority::normal,
                             fmt::format("station{}", atPlace)),
          ring(ofRing),
          place(atPlace) {
      taskWatchFdIs(ring.readingEnd(place));
    }
    void taskExecuteReadable() override { ring.serve(place); }
    void taskExecuteWritable() override {}
    Ring& ring;
    std::size_t place;
  };
  Ring ring(state);
  if (!ring.complete()) return;
  {
    std::vector<std::shared_ptr<Station>> stations;
    for (std::size_t i = 0; i < ring.size(); ++i) {
      stations.push_back(std::make_shared<Station>(ring, i));
    }
    ring.start([&stations] {
      for (const auto& station : stations) station->taskWatchFdDel();
    });
    Platform::doEventLoop();
  }
  Tarvo::leFree();
}
BENCHMARK(TarvoFdTask)->Apply(points);

}  // namespace
