/// Bytes of the heap for each of a hundred thousand objects, with all that belongs to one, beside
/// the size of its type. The time is that of making one.

#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <event2/event_struct.h>
#include <malloc.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Tarvo/ConstString.h"
#include "Tarvo/LibeventFactory.h"
#include "Tarvo/TaskScheduler.h"
#include "Tarvo/TaskSchedulerHistory.h"
#include "Tarvo/TimerWheel.h"

namespace {

using Tarvo::TaskPriority;

constexpr std::size_t objects = 100'000;

double heapInUse() {
  const auto info = mallinfo2();
  return static_cast<double>(info.uordblks + info.hblkhd);
}

/// Makes the objects one after the other with `make(i)`, which must keep them until `drop()`. What
/// keeps them is to be there before.
template <typename Make, typename Drop>
void measure(benchmark::State& state, std::size_t typeBytes, Make make, Drop drop) {
  for (auto _ : state) {
    const double before = heapInUse();
    for (std::size_t i = 0; i < objects; ++i) make(i);
    state.PauseTiming();
    state.counters["heap_bytes"] = (heapInUse() - before) / objects;
    drop();
    state.ResumeTiming();
  }
  state.counters["type_bytes"] = static_cast<double>(typeBytes);
  state.counters["each"] = benchmark::Counter(
      objects, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

template <typename Base>
struct Idle : Base {
  using Base::Base;
  void taskExecute() override {}
};

/// With names of their own or with one name for all.
template <typename Task>
void tasks(benchmark::State& state, bool ownNames) {
  {
    const auto root = Tarvo::schedulerRootTarvo();
    std::vector<std::shared_ptr<Idle<Task>>> kept(objects);
    measure(
        state, sizeof(Task),
        [&](std::size_t i) {
          kept[i] = std::make_shared<Idle<Task>>(
              root, TaskPriority::normal,
              ownNames ? fmt::format("connection {}", i) : "connection");
          kept[i]->includeInCompletedTaskIs(false);
        },
        [&] {
          for (auto& task : kept) task.reset();
        });
  }
  Tarvo::leFree();
}
void MemoryOfTask(benchmark::State& state) { tasks<Tarvo::Task>(state, false); }
void MemoryOfNamedTask(benchmark::State& state) { tasks<Tarvo::Task>(state, true); }
void MemoryOfTimerTask(benchmark::State& state) { tasks<Tarvo::TimerTask>(state, false); }
BENCHMARK(MemoryOfTask);
BENCHMARK(MemoryOfNamedTask);
BENCHMARK(MemoryOfTimerTask);

/// Started, in an array of the owner: the wheel itself allocates nothing for them.
void MemoryOfWheelTimer(benchmark::State& state) {
  struct Timer : Tarvo::TimerWheelEvent {
    void timeout() override {}
  };
  const auto wheel = Tarvo::getTimerWheelForTaskScheduler(Tarvo::Platform::eventPriorityDefault);
  std::vector<std::unique_ptr<Timer>> kept(objects);
  measure(
      state, sizeof(Tarvo::TimerWheelEvent),
      [&](std::size_t i) {
        kept[i] = std::make_unique<Timer>();
        kept[i]->setTimeout(wheel, 1000.0 + static_cast<double>(i) * 0.01);
      },
      [&] {
        for (auto& timer : kept) {
          timer->delTimeout(wheel);
          timer.reset();
        }
      });
}
BENCHMARK(MemoryOfWheelTimer);

/// The peer's timer, which also has a place in the heap of its base.
void MemoryOfLibeventTimer(benchmark::State& state) {
  event_base* base = Tarvo::leCreateBase();
  std::vector<std::unique_ptr<event>> kept(objects);
  measure(
      state, sizeof(event),
      [&](std::size_t i) {
        kept[i] = std::make_unique<event>();
        event_assign(
            kept[i].get(), base, -1, 0, [](evutil_socket_t, short, void*) {}, nullptr);
        const timeval delay{1000, static_cast<suseconds_t>(i)};
        event_add(kept[i].get(), &delay);
      },
      [&] {
        for (auto& timer : kept) {
          event_del(timer.get());
          timer.reset();
        }
      });
  event_base_free(base);
}
BENCHMARK(MemoryOfLibeventTimer);

void MemoryOfInternedName(benchmark::State& state) {
  std::optional<Tarvo::ConstStringCache> cache(std::in_place);
  std::vector<Tarvo::ConstStringRef> kept(objects);
  measure(
      state, sizeof(Tarvo::ConstStringRef::Elem),
      [&](std::size_t i) {
        kept[i] = Tarvo::ConstStringRef(*cache, fmt::format("connection {}", i));
      },
      [&] {
        for (auto& name : kept) name = {};
        cache.emplace();
      });
}
BENCHMARK(MemoryOfInternedName);

/// A full history of so many events.
void MemoryOfHistoryEvent(benchmark::State& state) {
  {
    const Idle<Tarvo::Task> task(Tarvo::schedulerRootTarvo(), TaskPriority::normal, "task");
    std::optional<Tarvo::TaskSchedulerHistory> history;
    const auto now = Tarvo::TaskClock::now();
    measure(
        state, sizeof(Tarvo::TaskSchedulerHistory::Event),
        [&](std::size_t) {
          if (!history) history.emplace(objects);
          history->insert(now, Tarvo::TaskSchedulerEventType::runStart, &task);
        },
        [&] { history.reset(); });
  }
  Tarvo::leFree();
}
BENCHMARK(MemoryOfHistoryEvent);

}  // namespace
