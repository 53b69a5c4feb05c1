/// What one operation costs among 1 to a million of its kind. The argument of each row is how many
/// there are.

#include <benchmark/benchmark.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "Descriptors.h"
#include "Draw.h"
#include "Tarvo/ConstString.h"
#include "Tarvo/LibeventFactory.h"
#include "Tarvo/TaskScheduler.h"
#include "TimerBackends.h"

namespace {

using Tarvo::TaskPriority;

void upToMillion(benchmark::internal::Benchmark* b) { b->RangeMultiplier(10)->Range(1, 1'000'000); }
void upToTenThousand(benchmark::internal::Benchmark* b) {
  b->RangeMultiplier(10)->Range(1, 10'000);
}

std::size_t many(const benchmark::State& state) { return static_cast<std::size_t>(state.range(0)); }

/// One run of a task, when all of them are runnable.
void TaskRunAmong(benchmark::State& state) {
  struct Again : Tarvo::Task {
    Again(benchmark::State& rounds, bool& isOn, const std::string& name)
        : Task(Tarvo::schedulerRootTarvo(), TaskPriority::normal, name), state(rounds), on(isOn) {}
    void taskExecute() override {
      if (on && (on = state.KeepRunning())) scheduleTask();
    }
    benchmark::State& state;
    bool& on;
  };
  bool on = true;
  {
    std::vector<std::shared_ptr<Again>> tasks;
    for (std::size_t i = 0; i < many(state); ++i) {
      tasks.push_back(std::make_shared<Again>(state, on, fmt::format("again{}", i)));
      tasks.back()->includeInCompletedTaskIs(false);
      tasks.back()->scheduleTask();
    }
    Tarvo::Platform::doEventLoop();
  }
  Tarvo::leFree();
}
BENCHMARK(TaskRunAmong)->Apply(upToMillion);

struct Idle : Tarvo::Task {
  using Task::Task;
  void taskExecute() override {}
};

/// With a name each.
std::vector<std::shared_ptr<Idle>> idleTasks(const std::shared_ptr<Tarvo::TaskScheduler>& root,
                                             std::size_t n) {
  std::vector<std::shared_ptr<Idle>> tasks;
  for (std::size_t i = 0; i < n; ++i) {
    tasks.push_back(std::make_shared<Idle>(root, TaskPriority::normal, fmt::format("idle{}", i)));
    tasks.back()->includeInCompletedTaskIs(false);
  }
  return tasks;
}

/// Making a task with a name that others have, and destroying it.
void TaskMadeAmong(benchmark::State& state) {
  {
    const auto root = Tarvo::schedulerRootTarvo();
    const auto tasks = idleTasks(root, many(state));
    for (auto _ : state) {
      const auto task = std::make_shared<Idle>(root, TaskPriority::normal, "idle0");
      task->includeInCompletedTaskIs(false);
    }
  }
  Tarvo::leFree();
}
BENCHMARK(TaskMadeAmong)->Apply(upToMillion);

/// One stop and one start of any timer.
template <typename Backend>
void TimerRestartAmong(benchmark::State& state) {
  const auto n = many(state);
  Backend timers(n);
  bench::Draw draw;
  for (std::size_t i = 0; i < n; ++i) timers.start(i, draw.delay(1000, 2000));
  for (auto _ : state) {
    const auto any = draw.below(n);
    timers.stop(any);
    timers.start(any, draw.delay(1000, 2000));
  }
}
using bench::TarvoWheel;
using LibeventHeap = bench::Libevent<false>;
BENCHMARK(TimerRestartAmong<TarvoWheel>)->Apply(upToMillion);
BENCHMARK(TimerRestartAmong<LibeventHeap>)->Apply(upToMillion);

/// Interning any of the names that are known.
void InternAmong(benchmark::State& state) {
  std::vector<std::string> texts;
  Tarvo::ConstStringCache cache;
  std::vector<Tarvo::ConstStringRef> known;
  for (std::size_t i = 0; i < many(state); ++i) {
    texts.push_back(fmt::format("connection {}", i));
    known.emplace_back(cache, texts.back());
  }
  bench::Draw draw;
  for (auto _ : state) {
    const Tarvo::ConstStringRef handle(cache, texts[draw.below(texts.size())]);
    benchmark::DoNotOptimize(handle.elem());
  }
}
BENCHMARK(InternAmong)->Apply(upToMillion);

/// Event descriptors, of which one is ready at a time.
class Descriptors {
 public:
  explicit Descriptors(benchmark::State& state) : state_(state) {
    const rlim_t wanted = many(state) + 64;
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur < wanted) {
      limit.rlim_cur = std::min(wanted, limit.rlim_max);
      setrlimit(RLIMIT_NOFILE, &limit);
    }
    while (fds_.size() < many(state)) {
      const int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
      if (fd < 0) {
        state.SkipWithError(bench::whyNoDescriptor());
        return;
      }
      fds_.push_back(fd);
    }
  }
  Descriptors(const Descriptors&) = delete;
  Descriptors& operator=(const Descriptors&) = delete;
  ~Descriptors() {
    for (const int fd : fds_) close(fd);
  }
  bool complete() const { return fds_.size() == many(state_); }
  const std::vector<int>& all() const { return fds_; }
  void wakeAny() { signal(fds_[draw_.below(fds_.size())]); }
  /// Takes an event and makes another one ready; false when that was enough.
  bool serve(int fd) {
    std::uint64_t value = 0;
    if (read(fd, &value, sizeof value) != sizeof value) std::abort();
    if (!state_.KeepRunning()) return false;
    wakeAny();
    return true;
  }

 private:
  static void signal(int fd) {
    const std::uint64_t one = 1;
    if (write(fd, &one, sizeof one) != sizeof one) std::abort();
  }
  benchmark::State& state_;
  std::vector<int> fds_;
  bench::Draw draw_;
};

void DescriptorTaskAmong(benchmark::State& state) {
  struct Watch : Tarvo::FileDescriptorTask {
    using Tasks = std::vector<std::shared_ptr<Watch>>;
    Watch(Descriptors& among, int fd, Tasks& allTasks)
        : FileDescriptorTask(Tarvo::schedulerRootTarvo(), TaskPriority::normal, "watch"),
          descriptors(among),
          watched(fd),
          tasks(allTasks) {
      taskWatchFdIs(fd);
    }
    void taskExecuteReadable() override {
      if (descriptors.serve(watched)) return;
      for (const auto& task : tasks) task->taskWatchFdDel();
    }
    void taskExecuteWritable() override {}
    Descriptors& descriptors;
    int watched;
    Tasks& tasks;
  };
  Descriptors descriptors(state);
  if (!descriptors.complete()) return;
  {
    Watch::Tasks tasks;
    for (const int fd : descriptors.all()) {
      tasks.push_back(std::make_shared<Watch>(descriptors, fd, tasks));
    }
    descriptors.wakeAny();
    Tarvo::Platform::doEventLoop();
  }
  Tarvo::leFree();
}
BENCHMARK(DescriptorTaskAmong)->Apply(upToTenThousand);

/// The same on libevent alone.
void LibeventPersistAmong(benchmark::State& state) {
  struct Watch {
    Descriptors& descriptors;
    event_base* base;
    event ev;
  };
  Descriptors descriptors(state);
  if (!descriptors.complete()) return;
  event_base* base = Tarvo::leCreateBase();
  std::vector<Watch> watches(descriptors.all().size(), {descriptors, base, {}});
  for (std::size_t i = 0; i < watches.size(); ++i) {
    event_assign(
        &watches[i].ev, base, descriptors.all()[i], EV_READ | EV_PERSIST,
        [](evutil_socket_t fd, short, void* arg) {
          const auto* self = static_cast<Watch*>(arg);
          if (!self->descriptors.serve(fd)) event_base_loopbreak(self->base);
        },
        &watches[i]);
    event_add(&watches[i].ev, nullptr);
  }
  descriptors.wakeAny();
  event_base_dispatch(base);
  for (Watch& watch : watches) event_del(&watch.ev);
  event_base_free(base);
}
BENCHMARK(LibeventPersistAmong)->Apply(upToTenThousand);

/// A report has a line for each task: what must grow with their number.
void ReportOf(benchmark::State& state) {
  {
    const auto root = Tarvo::schedulerRootTarvo();
    const auto tasks = idleTasks(root, many(state));
    for (auto _ : state) benchmark::DoNotOptimize(root->statsRenderJson().size());
  }
  Tarvo::leFree();
}
BENCHMARK(ReportOf)->Apply(upToTenThousand);

}  // namespace
