#include "Tarvo/Counters.h"

#include <algorithm>
#include <new>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "Tarvo/Assert.h"
#include "Tarvo/Loco.h"
#include "foundation/PassCancellation.h"
#include "foundation/Registry.h"
#include "util/UtilTrace.h"

namespace Tarvo {

namespace {

using Registry = std::unordered_map<String, Metric*>;

// REQUIRES: the global lock. The map and the metrics are never destroyed: static objects may count
// while the process exits.
Registry& registry() {
  static auto& map = *new Registry;
  return map;
}

// Guarded by the global lock.
bool pluginWanted = true;  // loading the plug-in has not been tried yet
CountersPlugin* counters = nullptr;

constinit Impl::CounterTable noBlocks{};

}  // namespace

/// The additions of one thread. When the thread ends, the destructor adds them to the metrics. The
/// list of tallies, and the table of blocks, are changed under the global lock; the numbers in the
/// blocks are changed by their thread without a lock.
class Impl::Tally {
 public:
  Tally() = default;
  Tally(const Tally&) = delete;
  Tally& operator=(const Tally&) = delete;
  ~Tally();

  /// The tally of the calling thread; null when it was destroyed already, at the end of the thread.
  static Tally* own();
  /// Null when there is no memory.
  CounterBlock* makeBlock(std::size_t number);

  /// REQUIRES: the global lock.
  static std::uint64_t sumOf(std::size_t number) {
    std::uint64_t sum = 0;
    for (const auto* tally = first_; tally != nullptr; tally = tally->next_) {
      sum += tally->added(number);
    }
    return sum;
  }

 private:
  std::uint64_t added(std::size_t number) const {
    const auto* block = table_[number / cellsInBlock].load(std::memory_order_relaxed);
    return block != nullptr ? (*block)[number % cellsInBlock].load(std::memory_order_relaxed) : 0;
  }

  static constinit Tally* first_;
  static constinit thread_local bool closed_;

  Tally* next_ = nullptr;
  bool listed_ = false;
  CounterTable table_{};
};

constinit Impl::Tally* Impl::Tally::first_ = nullptr;
constinit thread_local bool Impl::Tally::closed_ = false;
constinit thread_local Impl::CounterTable* Impl::counterTable = &noBlocks;

Impl::Tally* Impl::Tally::own() {
  if (closed_) return nullptr;
  static thread_local Tally tally;
  return &tally;
}

Impl::CounterBlock* Impl::Tally::makeBlock(std::size_t number) {
  auto* block = new (std::nothrow) CounterBlock{};
  if (block == nullptr) return nullptr;
  const Platform::LocoGuard guard;
  const WholeChange change;
  if (!std::exchange(listed_, true)) next_ = std::exchange(first_, this);
  table_[number / cellsInBlock].store(block, std::memory_order_relaxed);
  counterTable = &table_;
  return block;
}

Impl::Tally::~Tally() {
  closed_ = true;
  counterTable = &noBlocks;
  if (!listed_) return;
  {
    const Platform::LocoGuard guard;
    const WholeChange change;
    Tally** at = &first_;
    while (*at != this) at = &(*at)->next_;
    *at = next_;
    for (const auto& [name, metric] : registry()) {
      metric->rest_.fetch_add(added(metric->number_), std::memory_order_relaxed);
    }
  }
  for (auto& block : table_) delete block.load(std::memory_order_relaxed);
}

Metric::Metric(MetricKind kind, std::size_t number, const String& name, const String& help)
    : number_(number), kind_(kind), name_(name), help_(help) {}

Metric& Metric::of(MetricKind kind, const String& name, const String& help) {
  constexpr const char* letters =
      "0123456789_:abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
  TARVO_ASSERT(!name.empty() && (name[0] < '0' || name[0] > '9') &&
                   name.find_first_not_of(letters) == String::npos,
               "\"{}\" is no name of a metric", name);
  const Platform::LocoGuard guard;
  if (std::exchange(pluginWanted, false)) {
    auto* plugin = Platform::loadPlugin("Counters");
    auto* found = dynamic_cast<CountersPlugin*>(plugin);
    TARVO_ASSERT(plugin == nullptr || found != nullptr,
                 "the plug-in Counters is no Tarvo::CountersPlugin");
    const Registry early = registry();  // metrics that the plug-in's initialisers have made
    counters = found;
    for (const auto& entry : early) entry.second->show();
  }
  const auto found = registry().find(name);
  if (found != registry().end()) {
    TARVO_ASSERT(found->second->kind_ == kind, "the metric {} is both a counter and a gauge", name);
    return *found->second;
  }
  const std::size_t number = registry().size();
  TARVO_ASSERT(number < Impl::mostMetrics, "no room for the metric {} beside {} others", name,
               number);
  auto* made = new Metric(kind, number, name, help);
  Impl::addEntry(registry(), name, made);
  made->show();
  return *made;
}

void Metric::show() {
  if (counters == nullptr) return;
  try {
    watch_.store(counters->watch(*this), std::memory_order_release);
  } catch (const std::exception& e) {
    leave(e.what());
  } catch (...) {
    Impl::passCancellation();
    leave("something that is no std::exception");
  }
}

void Metric::tell(CounterWatch& watch, std::uint64_t by) {
  try {
    watch.changed(*this, static_cast<std::int64_t>(by));
  } catch (const std::exception& e) {
    leave(e.what());
  } catch (...) {
    Impl::passCancellation();
    leave("something that is no std::exception");
  }
}

void Metric::leave(const char* thrown) {
  watch_.store(nullptr, std::memory_order_relaxed);
  TARVO_TRACE(Impl::utilTrace, 0, "the plug-in Counters hears no more of {}, because it threw: {}",
              name_, thrown);
}

// The thread has no block for this metric yet. Without memory for one, or while the thread ends,
// the metric's own number is used: it is shared and slower, but counts.
void Metric::addFirst(std::uint64_t by) {
  auto* tally = Impl::Tally::own();
  auto* block = tally != nullptr ? tally->makeBlock(number_) : nullptr;
  auto& cell = block != nullptr ? (*block)[number_ % Impl::cellsInBlock] : rest_;
  cell.fetch_add(by, std::memory_order_relaxed);
}

std::int64_t Metric::value() const {
  const Platform::LocoGuard guard;
  return static_cast<std::int64_t>(rest_.load(std::memory_order_relaxed) +
                                   Impl::Tally::sumOf(number_));
}

void Metric::valueIs(std::int64_t value) {
  std::uint64_t by = 0;
  {
    const Platform::LocoGuard guard;
    by = static_cast<std::uint64_t>(value) - static_cast<std::uint64_t>(this->value());
    rest_.fetch_add(by, std::memory_order_relaxed);
  }
  if (auto* watch = watch_.load(std::memory_order_acquire)) tell(*watch, by);
}

std::vector<const Metric*> metrics() {
  std::vector<const Metric*> all;
  {
    const Platform::LocoGuard guard;
    for (const auto& entry : registry()) all.push_back(entry.second);
  }
  std::ranges::sort(all, {}, &Metric::name);
  return all;
}

}  // namespace Tarvo
