/// Bytes of the heap for each of so many objects, with all that belongs to one, beside the size of
/// its type. The time is that of making one.

#include <malloc.h>

#include <optional>

#include "Runs.h"
#include "Tarvo/ConstString.h"
#include "Tarvo/TaskSchedulerHistory.h"
#include "Tarvo/TimerWheel.h"

namespace bench {

double heapInUse() {
  const auto info = mallinfo2();
  return static_cast<double>(info.uordblks + info.hblkhd);
}

/// Makes the objects one after the other with `make(i)`, which must keep them. What keeps them is
/// to be there before. There is one iteration.
template <typename Make>
void measure(State& state, std::size_t typeBytes, Make make) {
  const auto n = static_cast<double>(state.range(0));
  const double before = heapInUse();
  for (auto _ : state) {
    for (std::size_t i = 0; i < many(state); ++i) make(i);
  }
  state.counters["heap_bytes"] = (heapInUse() - before) / n;
  state.counters["type_bytes"] = static_cast<double>(typeBytes);
  using benchmark::Counter;
  state.counters["each"] = Counter(n, Counter::kIsIterationInvariantRate | Counter::kInvert);
}

template <typename Base>
struct Waiting : Base {
  using Base::Base;
  void taskExecute() override {}
};

/// With names of their own, or with one name for all.
template <typename Task>
void tasks(State& state, const char* pattern) {
  const LoopOfRow loop;
  const auto root = Tarvo::schedulerRootTarvo();
  std::vector<std::shared_ptr<Waiting<Task>>> kept(many(state));
  measure(state, sizeof(Task), [&](std::size_t i) {
    kept[i] = std::make_shared<Waiting<Task>>(root, TaskPriority::normal,
                                              fmt::format(fmt::runtime(pattern), i));
    kept[i]->includeInCompletedTaskIs(false);
  });
}
void MemoryOfTask(State& state) { tasks<Tarvo::Task>(state, "connection"); }
void MemoryOfNamedTask(State& state) { tasks<Tarvo::Task>(state, "connection {}"); }
void MemoryOfTimerTask(State& state) { tasks<Tarvo::TimerTask>(state, "connection"); }
void IdleTasks(State& state) { tasks<Tarvo::Task>(state, "c{}"); }

/// Started, each on the heap: the wheel itself allocates nothing for them.
void MemoryOfWheelTimer(State& state) {
  struct Timer : Tarvo::TimerWheelEvent {
    void timeout() override {}
  };
  const auto wheel = Tarvo::getTimerWheelForTaskScheduler(Tarvo::Platform::eventPriorityDefault);
  std::vector<std::unique_ptr<Timer>> kept(many(state));
  measure(state, sizeof(Tarvo::TimerWheelEvent), [&](std::size_t i) {
    kept[i] = std::make_unique<Timer>();
    kept[i]->setTimeout(wheel, 1000.0 + static_cast<double>(i) * 0.01);
  });
  for (const auto& timer : kept) timer->delTimeout(wheel);
}

/// The peer's timer, which also has a place in the heap of its base.
void MemoryOfLibeventTimer(State& state) {
  event_base* base = Tarvo::leCreateBase();
  std::vector<std::unique_ptr<event>> kept(many(state));
  measure(state, sizeof(event), [&](std::size_t i) {
    kept[i] = std::make_unique<event>();
    event_assign(
        kept[i].get(), base, -1, 0, [](evutil_socket_t, short, void*) {}, nullptr);
    const timeval delay{1000, static_cast<suseconds_t>(i)};
    event_add(kept[i].get(), &delay);
  });
  for (const auto& timer : kept) event_del(timer.get());
  event_base_free(base);
}

void MemoryOfInternedName(State& state) {
  Tarvo::ConstStringCache cache;
  std::vector<Tarvo::ConstStringRef> kept(many(state));
  measure(state, sizeof(Tarvo::ConstStringRef::Elem), [&](std::size_t i) {
    kept[i] = Tarvo::ConstStringRef(cache, fmt::format("connection {}", i));
  });
}

/// A full history of so many events.
void MemoryOfHistoryEvent(State& state) {
  const LoopOfRow loop;
  const Idle task(Tarvo::schedulerRootTarvo(), TaskPriority::normal, "task");
  std::optional<Tarvo::TaskSchedulerHistory> history;
  const auto now = Tarvo::TaskClock::now();
  measure(state, sizeof(Tarvo::TaskSchedulerHistory::Event), [&](std::size_t) {
    if (!history) history.emplace(many(state));
    history->insert(now, Tarvo::TaskSchedulerEventType::runStart, &task);
  });
}

void once(benchmark::internal::Benchmark* b) { b->Arg(100'000)->Iterations(1); }
BENCHMARK(MemoryOfTask)->Apply(once);
BENCHMARK(MemoryOfNamedTask)->Apply(once);
BENCHMARK(MemoryOfTimerTask)->Apply(once);
BENCHMARK(MemoryOfWheelTimer)->Apply(once);
BENCHMARK(MemoryOfLibeventTimer)->Apply(once);
BENCHMARK(MemoryOfInternedName)->Apply(once);
BENCHMARK(MemoryOfHistoryEvent)->Apply(once);
BENCHMARK(IdleTasks)->Arg(1'000'000)->Iterations(1);

}  // namespace bench
