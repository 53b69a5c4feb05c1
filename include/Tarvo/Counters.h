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
/// The operator chooses where the numbers are published. The first metric of the process loads the
/// plug-in "Counters" (Tarvo/Plugin.h): a "libCounters.so" that the dynamic loader finds publishes
/// them. Without one, a line on the channel "TarvoPlugin" says so once, and metrics() and value()
/// still work. An addition then is one relaxed addition to a number that belongs to the calling
/// thread: no lock, no call, no shared cache line. (The first addition of a thread allocates room
/// for 64 metrics.)
///
/// 1. For each new metric the library calls CountersPlugin::watch(). It holds the global lock, so
///    watch() must not wait for another thread. Metrics made while the plug-in was loading are
///    passed to watch() after that.
/// 2. watch() returns null when the plug-in reads value() by itself. Or it returns a CounterWatch,
///    which is called after each change from then on, by the thread that made the change, without a
///    lock. A watch must not change the metric that it watches.
///
/// When watch() throws, that metric has no watch. When a CounterWatch throws, it is not called
/// again. A line on the channel "TarvoUtil" says so; the code that counts is not disturbed. When
/// the loaded library registers no plug-in of that name, or one of another class, the first metric
/// fails an assertion. If that throws, later metrics work as without a plug-in.
///
/// Any thread may make, change and read metrics until the end of the process, except in signal
/// handlers. What a thread has counted remains when it ends. Counters of one name share one number.
/// A metric is never freed, so do not make names from data; there may be 4096 metrics. The plug-in
/// and its watches are used until the process ends: allocate them and never delete them.
///
/// A forked child continues with its parent's numbers and with the same plug-in, which must restart
/// its own threads and files there.

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

/// The plug-in that "libCounters.so" registers, under the name "Counters".
class TARVO_EXPORT CountersPlugin : public Platform::Plugin {
 public:
  /// Called for each new metric. Returns the object to call when it changes, or null.
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

/// The additions of one thread to 64 metrics; only that thread writes.
using CounterBlock = std::array<std::atomic<std::uint64_t>, cellsInBlock>;
using CounterTable = std::array<std::atomic<CounterBlock*>, mostMetrics / cellsInBlock>;

/// The table of the calling thread. Before the thread's first addition, and after its thread-local
/// objects are destroyed, it is a shared table without blocks, so that add() needs no check for
/// null.
TARVO_EXPORT extern constinit thread_local CounterTable* counterTable
    __attribute__((tls_model("initial-exec")));

}  // namespace Impl

/// A named number. Users make a Counter or a Gauge.
class TARVO_EXPORT Metric {
 public:
  Metric(const Metric&) = delete;
  Metric& operator=(const Metric&) = delete;

  const String& name() const { return name_; }
  /// The description given by the first Counter or Gauge of this name.
  const String& help() const { return help_; }
  MetricKind kind() const { return kind_; }

  /// The sum over all threads. Takes the global lock: for reports. Additions that other threads
  /// make meanwhile may be missing.
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
  std::atomic<std::uint64_t> rest_{0};  // from ended threads and from valueIs()
  const MetricKind kind_;
  const String name_;
  const String help_;
};

/// A number that only grows, such as a number of requests.
class TARVO_EXPORT Counter {
 public:
  /// The counter of that name, made if there is none. Fails an assertion when the name has
  /// characters other than letters, digits, "_" and ":", or begins with a digit; when a gauge has
  /// the name; and for the 4097th metric.
  explicit Counter(const String& name, const String& help = "")
      : metric_(&Metric::of(MetricKind::counter, name, help)) {}

  void valueInc(std::uint64_t by = 1) { metric_->add(by); }
  std::uint64_t value() const { return static_cast<std::uint64_t>(metric_->value()); }

 private:
  Metric* metric_;
};

/// A number that rises and falls, such as a number of open connections.
class TARVO_EXPORT Gauge {
 public:
  /// The gauge of that name, made if there is none. Fails as Counter's constructor does.
  explicit Gauge(const String& name, const String& help = "")
      : metric_(&Metric::of(MetricKind::gauge, name, help)) {}

  void valueInc(std::int64_t by = 1) { metric_->add(static_cast<std::uint64_t>(by)); }
  void valueDec(std::int64_t by = 1) { metric_->add(0 - static_cast<std::uint64_t>(by)); }
  /// Sets the value, under the global lock.
  void valueIs(std::int64_t value) { metric_->valueIs(value); }
  std::int64_t value() const { return metric_->value(); }

 private:
  Metric* metric_;
};

/// All metrics, sorted by name.
TARVO_EXPORT std::vector<const Metric*> metrics();

}  // namespace Tarvo

#endif
