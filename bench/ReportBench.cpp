/// What it costs to tell what 10,000 tasks did: one iteration is one report. Beside it the same
/// JSON document, parsed before, written by the JSON library alone.

#include <benchmark/benchmark.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <memory>
#include <vector>

#include "Tarvo/LibeventFactory.h"
#include "Tarvo/TaskScheduler.h"

namespace {

struct Idle : Tarvo::Task {
  using Task::Task;
  void taskExecute() override { taskWorkCountInc(1); }
};

/// A root with tasks of names of their own, that have run once.
class Tasks {
 public:
  Tasks() {
    for (int i = 0; i < 10'000; ++i) {
      tasks_.push_back(std::make_shared<Idle>(root_, Tarvo::TaskPriority::normal,
                                              fmt::format("connection {}", i)));
      tasks_.back()->includeInCompletedTaskIs(false);
      tasks_.back()->taskRunFromTest();
    }
  }
  Tasks(const Tasks&) = delete;
  Tasks& operator=(const Tasks&) = delete;
  ~Tasks() {
    tasks_.clear();
    root_.reset();
    Tarvo::leFree();
  }
  const Tarvo::TaskSchedulerRoot& root() const { return *root_; }

 private:
  std::shared_ptr<Tarvo::TaskSchedulerRoot> root_ = Tarvo::schedulerRootTarvo();
  std::vector<std::shared_ptr<Idle>> tasks_;
};

template <typename Render>
void report(benchmark::State& state, Render render) {
  const Tasks tasks;
  std::size_t bytes = 0;
  for (auto _ : state) bytes = render(tasks.root());
  state.counters["bytes"] = static_cast<double>(bytes);
}

void Text(benchmark::State& state) {
  report(state, [](const auto& root) { return root.statsRenderTextForDebugToString().size(); });
}
BENCHMARK(Text)->Unit(benchmark::kMillisecond);

void Json(benchmark::State& state) {
  report(state, [](const auto& root) { return root.statsRenderJson().size(); });
}
BENCHMARK(Json)->Unit(benchmark::kMillisecond);

void Prometheus(benchmark::State& state) {
  report(state, [](const auto& root) { return root.statsRenderPrometheus().size(); });
}
BENCHMARK(Prometheus)->Unit(benchmark::kMillisecond);

void JsonLibraryAlone(benchmark::State& state) {
  rapidjson::Document document;
  {
    const Tasks tasks;
    document.Parse(tasks.root().statsRenderJson().c_str());
  }
  rapidjson::StringBuffer buffer;
  for (auto _ : state) {
    buffer.Clear();
    rapidjson::Writer writer(buffer);
    document.Accept(writer);
  }
  state.counters["bytes"] = static_cast<double>(buffer.GetSize());
}
BENCHMARK(JsonLibraryAlone)->Unit(benchmark::kMillisecond);

}  // namespace
