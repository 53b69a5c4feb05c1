#ifndef TARVO_COUNTERS_H
#define TARVO_COUNTERS_H

/// Named numbers that a service counts, and the plug-in that publishes them.
///
///     Tarvo::Counter accepted("accepted_total", "connections taken");
///     Tarvo::Gauge open("open_connections");
///     ...
///     accepted.valueInc();
///     open.valueInc();    // and valueDec() when it closes
///
/// Where they go is the operator's choice. The first counter of the process loads the plug-in
/// "Counters" by name (Tarvo/Plugin.h): whoever puts a "libCounters.so" where the dynamic loader
/// finds it publishes them. Without one a line on the channel "TarvoPlugin" says so, once, and each
/// addition is one relaxed addition to a number that belongs to the calling thread: no lock, no
/// call, nothing shared. (The first of a thread allocates the room for 64 of them.) metrics() and
/// value() work with and without a plug-in.
///
/// 1. The plug-in is shown each metric as it is made: CountersPlugin::watch(), under the global
///    lock, so it must not wait for another thread. Those made while it was loading come after
///    that.
/// 2. It returns null, and reads value() when it publishes; or a CounterWatch, which is called at
///    each change from then on, after it, by the thread that made it, without a lock. A watch must
///    not change what it watches.
///
/// A plug-in that throws is left: watch() for that metric, a CounterWatch from then on. A line on
/// the channel "TarvoUtil" says so; who counts is not disturbed. A plug-in that is none of this
/// kind, or does not register its name, fails an assertion where the first counter is made; where
/// that throws, later counters work as without one.
///
/// Any thread may make, change and read all of them, at any time up to the end of the process, but
/// in signal handlers. What a thread has counted stays when it ends. Those of one name are one
/// number. It is kept for good, so names must not come from data; there may be 4096. Plug-in and
/// watches are used as long as the process lives: make them with new, and leave them.
///
/// A forked child goes on from what its parent had counted, with the same plug-in, which must bring
/// its own threads and files in order there.

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "Tarvo/Export.h"
#include "Tarvo/Plugin.h"
#include "Tarvo/String.h"

namespace Tarvo {

class Metric;

/// Called at each change of a metric.
class TARVO_EXPORT CounterWatch {
 public:
  virtual void changed(const Metric& metric, std::int64_t by) = 0;

 protected:
  ~CounterWatch() = default;
};

/// What the library "libCounters.so" registers, under the name "Counters".
class TARVO_EXPORT CountersPlugin : public Platform::Plugin {
 public:
  /// A new metric, and what to call when it changes; null for nothing.
  virtual CounterWatch* watch(const Metric& metric) = 0;

 protected:
  ~CountersPlugin() = default;
};

enum class MetricKind : std::uint8_t {
  counter,  // only grows
  gauge,
};

namespace Impl {

class Tally;

constexpr std::size_t cellsInBlock = 64;
constexpr std::size_t mostMetrics = 64 * cellsInBlock;

/// What one thread has added to its metrics; only that thread writes.
using CounterBlock = std::array<std::atomic<std::uint64_t>, cellsInBlock>;
using CounterTable = std::array<std::atomic<CounterBlock*>, mostMetrics / cellsInBlock>;

/// Of this thread; an empty one before its first addition and after its last.
TARVO_EXPORT extern constinit thread_local CounterTable* counterTable
    __attribute__((tls_model("initial-exec")));

}  // namespace Impl

/// A name and its number.
class TARVO_EXPORT Metric {
 public:
  Metric(const Metric&) = delete;
  Metric& operator=(const Metric&) = delete;

  const String& name() const { return name_; }
  /// What it counts, in the words of whoever made it first.
  const String& help() const { return help_; }
  MetricKind kind() const { return kind_; }

  /// The sum over all threads, under the global lock: for reports. What other threads add meanwhile
  /// may be in it or not.
  std::int64_t value() const;

  /// For Counter and Gauge.
  static Metric& of(MetricKind kind, const String& name, const String& help);
  void valueIs(std::int64_t value);
  void add(std::uint64_t by) {
    auto* block =
        (*Impl::counterTable)[number_ / Impl::cellsInBlock].load(std::memory_order_relaxed);
    if (block != nullptr) [[likely]] {
      auto& cell = (*block)[number_ % Impl::cellsInBlock];
      cell.store(cell.load(std::memory_order_relaxed) + by, std::memory_order_relaxed);
    } else {
      addFirst(by);
    }
    if (auto* watch = watch_.load(std::memory_order_acquire)) [[unlikely]]
      tell(*watch, by);
  }

 private:
  friend Impl::Tally;

  Metric(MetricKind kind, std::size_t number, const String& name, const String& help);
  ~Metric() = default;

  void addFirst(std::uint64_t by);
  void tell(CounterWatch& watch, std::uint64_t by);
  void show();
  void leave(const char* thrown);

  const std::size_t number_;
  std::atomic<CounterWatch*> watch_{nullptr};
  std::atomic<std::uint64_t> rest_{0};  // of ended threads, and what valueIs() put beside the sum
  const MetricKind kind_;
  const String name_;
  const String help_;
};

/// A number that only grows: what happened so far.
class TARVO_EXPORT Counter {
 public:
  /// Joins the counter of that name, or makes it. Fails an assertion when the name is not made of
  /// letters, digits, "_" and ":", or begins with a digit; when a gauge has it; and for the 4097th.
  explicit Counter(const String& name, const String& help = "")
      : metric_(&Metric::of(MetricKind::counter, name, help)) {}

  void valueInc(std::uint64_t by = 1) { metric_->add(by); }
  std::uint64_t value() const { return static_cast<std::uint64_t>(metric_->value()); }

 private:
  Metric* metric_;
};

/// A number that rises and falls: what there is now.
class TARVO_EXPORT Gauge {
 public:
  /// As a counter is made.
  explicit Gauge(const String& name, const String& help = "")
      : metric_(&Metric::of(MetricKind::gauge, name, help)) {}

  void valueInc(std::int64_t by = 1) { metric_->add(static_cast<std::uint64_t>(by)); }
  void valueDec(std::int64_t by = 1) { metric_->add(0 - static_cast<std::uint64_t>(by)); }
  /// Adds what is missing to that value; for this it takes the global lock.
  void valueIs(std::int64_t value) { metric_->valueIs(value); }
  std::int64_t value() const { return metric_->value(); }

 private:
  Metric* metric_;
};

/// All of them, by name.
TARVO_EXPORT std::vector<const Metric*> metrics();

}  // namespace Tarvo

#endif
