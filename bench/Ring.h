#ifndef TARVO_BENCH_RING_H
#define TARVO_BENCH_RING_H

/// Bytes that travel around a ring of connections, most of which are silent: each row serves the
/// same descriptors in its own way and makes the same two system calls for an event. The arguments
/// are the number of connections and the number of bytes under way.

#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <deque>
#include <functional>

#include "Runs.h"

namespace bench {

/// What stands at the places of the ring are the ends of pairs of sockets: what is written into one
/// end can be read from the other.
class Ring {
 public:
  explicit Ring(State& state)
      : state_(state), size_(many(state)), bytes_(static_cast<std::size_t>(state.range(1))) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    const bool room = limit.rlim_cur >= size_ + 64;  // with what the loops and the process need
    while (ends_.size() < size_) {
      int pair[2];
      if (!room || socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair) != 0) {
        // A row may be left out for want of descriptors; anything else is a failure.
        const bool want = !room || errno == EMFILE || errno == ENFILE;
        state.SkipWithError(want ? "too few descriptors" : "a descriptor could not be made");
        return;
      }
      ends_.insert(ends_.end(), pair, pair + 2);
    }
  }
  Ring(const Ring&) = delete;
  Ring& operator=(const Ring&) = delete;
  ~Ring() {
    for (const int end : ends_) close(end);
  }

  bool complete() const { return ends_.size() >= size_; }
  std::size_t size() const { return size_; }
  int descriptor(std::size_t place) const { return ends_[place]; }

  /// Sends the bytes off; `end` is called when the row has enough.
  void start(std::function<void()> end) {
    end_ = std::move(end);
    for (std::size_t i = 0; i < bytes_; ++i) passTo(i * size_ / bytes_);
  }

  /// What every row does when a place can be read; false when there was nothing.
  bool serve(std::size_t place) {
    char byte;
    if (read(ends_[place], &byte, 1) != 1) {
      if (errno == EAGAIN) return false;
      std::abort();
    }
    if (!on_) return true;
    if (state_.KeepRunning()) {
      passTo(place + 1 == size_ ? 0 : place + 1);
    } else {
      on_ = false;
      end_();
    }
    return true;
  }

 private:
  void passTo(std::size_t place) {
    if (write(ends_[place ^ 1U], "x", 1) != 1) std::abort();
  }

  State& state_;
  std::size_t size_;
  std::size_t bytes_;
  std::vector<int> ends_;
  std::function<void()> end_;
  bool on_ = true;
};

inline void TarvoFdControl(State& state) {
  struct Station : Tarvo::Platform::FdEventHandler {
    Station(Ring& ofRing, std::size_t atPlace) : ring(ofRing), place(atPlace) {
      control->setFd(ring.descriptor(place));
    }
    void readFdEvent(int) override { ring.serve(place); }
    void writeFdEvent(int) override {}
    Ring& ring;
    std::size_t place;
    std::shared_ptr<Tarvo::Platform::FdControl> control = Tarvo::Platform::getFdControl(this);
  };
  const LoopOfRow loop;
  Ring ring(state);
  if (!ring.complete()) return;
  std::deque<Station> stations;
  for (std::size_t i = 0; i < ring.size(); ++i) stations.emplace_back(ring, i);
  ring.start([&stations] {
    for (Station& station : stations) station.control->delFd();
  });
  Tarvo::Platform::doEventLoop();
}

/// Each run takes one byte, or reads until nothing is left and says so.
template <bool UntilDrained>
void fdTask(State& state) {
  struct Station : Tarvo::FileDescriptorTask {
    Station(Ring& ofRing, std::size_t atPlace)
        : FileDescriptorTask(Tarvo::schedulerRootTarvo(), Tarvo::TaskPriority::normal,
                             fmt::format("station{}", atPlace)),
          ring(ofRing),
          place(atPlace) {
      taskWatchFdIs(ring.descriptor(place));
    }
    void taskExecuteReadable() override {
      if (!UntilDrained) {
        ring.serve(place);
        return;
      }
      while (ring.serve(place)) {
      }
      taskReadDrained();
    }
    void taskExecuteWritable() override {}
    Ring& ring;
    std::size_t place;
  };
  const LoopOfRow loop;
  Ring ring(state);
  if (!ring.complete()) return;
  std::vector<std::shared_ptr<Station>> stations;
  for (std::size_t i = 0; i < ring.size(); ++i) {
    stations.push_back(std::make_shared<Station>(ring, i));
  }
  ring.start([&stations] {
    for (const auto& station : stations) station->taskWatchFdDel();
  });
  Tarvo::Platform::doEventLoop();
}
inline void TarvoFdTask(State& state) { fdTask<false>(state); }
inline void TarvoFdTaskDrained(State& state) { fdTask<true>(state); }

}  // namespace bench

#endif
