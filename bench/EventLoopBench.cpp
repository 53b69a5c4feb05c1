/// One control of each kind on the loop, beside the same events on bare libevent.

#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <event2/event_struct.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Tarvo/LibeventFactory.h"
#include "Tarvo/Platform.h"

namespace {

namespace Platform = Tarvo::Platform;

/// Asks for its next run from inside the run until the benchmark has enough.
struct Rearming : Platform::CallbackHandler {
  explicit Rearming(benchmark::State& benchState) : state(benchState) {}
  void callback() override {
    if (state.KeepRunning()) control->requestCallback();
  }
  benchmark::State& state;
  std::shared_ptr<Platform::CallbackControl> control = Platform::getCallbackControl(this);
};

void CallbackRearmed(benchmark::State& state) {
  Rearming handler(state);
  handler.control->requestCallback();
  Platform::doEventLoop();
}
BENCHMARK(CallbackRearmed);

struct Bare {
  benchmark::State& state;
  event ev;
};
constexpr timeval noDelay{0, 0};

void LibeventRearmed(benchmark::State& state) {
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
}
BENCHMARK(LibeventRearmed);

/// One byte in, one byte out, on both ends of a connection.
struct Ends {
  Ends() {
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fd) != 0) std::abort();
    pass(fd[1]);
  }
  ~Ends() {
    close(fd[0]);
    close(fd[1]);
  }
  static void pass(int to) {
    if (write(to, "x", 1) != 1) std::abort();
  }
  static void take(int from) {
    char byte;
    if (read(from, &byte, 1) != 1) std::abort();
  }
  int fd[2];
};

struct PingPong : Platform::FdEventHandler {
  explicit PingPong(benchmark::State& benchState) : state(benchState) {
    control->setFd(ends.fd[0]);
  }
  void readFdEvent(int fd) override {
    Ends::take(fd);
    if (state.KeepRunning()) {
      Ends::pass(ends.fd[1]);
    } else {
      control->delFd();
    }
  }
  void writeFdEvent(int) override {}
  benchmark::State& state;
  Ends ends;
  std::shared_ptr<Platform::FdControl> control = Platform::getFdControl(this);
};

void FdControlRead(benchmark::State& state) {
  PingPong handler(state);
  Platform::doEventLoop();
}
BENCHMARK(FdControlRead);

struct BarePingPong {
  benchmark::State& state;
  Ends ends;
  event ev;
};

void LibeventPersistRead(benchmark::State& state) {
  BarePingPong bare{state, {}, {}};
  event_assign(
      &bare.ev, Tarvo::leInit(), bare.ends.fd[0], EV_READ | EV_PERSIST,
      [](evutil_socket_t fd, short, void* arg) {
        auto* self = static_cast<BarePingPong*>(arg);
        Ends::take(fd);
        if (self->state.KeepRunning()) {
          Ends::pass(self->ends.fd[1]);
        } else {
          event_del(&self->ev);
        }
      },
      &bare);
  event_add(&bare.ev, nullptr);
  event_base_dispatch(Tarvo::leInit());
}
BENCHMARK(LibeventPersistRead);

}  // namespace
