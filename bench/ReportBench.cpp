/// What it costs to tell what tasks did: one iteration is one report of all of them. Beside it the
/// same JSON document, parsed before, written by the JSON library alone.

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "Runs.h"

namespace bench {

/// A root with tasks of names of their own, that have run once.
class Tasks {
 public:
  explicit Tasks(std::size_t n) : tasks_(idleTasks(root_, n)) {
    for (const auto& task : tasks_) task->taskRunFromTest();
  }
  const Tarvo::TaskSchedulerRoot& root() const { return *root_; }

 private:
  LoopOfRow loop_;
  std::shared_ptr<Tarvo::TaskSchedulerRoot> root_ = Tarvo::schedulerRootTarvo();
  std::vector<std::shared_ptr<Idle>> tasks_;
};

template <typename Render>
void report(State& state, Render render) {
  const Tasks tasks(many(state));
  std::size_t bytes = 0;
  for (auto _ : state) bytes = render(tasks.root()).size();
  state.counters["bytes"] = static_cast<double>(bytes);
}

void Text(State& state) {
  report(state, [](const auto& root) { return root.statsRenderTextForDebugToString(); });
}
void Json(State& state) {
  report(state, [](const auto& root) { return root.statsRenderJson(); });
}
void Prometheus(State& state) {
  report(state, [](const auto& root) { return root.statsRenderPrometheus(); });
}
void JsonLibraryAlone(State& state) {
  rapidjson::Document document;
  document.Parse(Tasks(many(state)).root().statsRenderJson().c_str());
  rapidjson::StringBuffer buffer;
  for (auto _ : state) {
    buffer.Clear();
    rapidjson::Writer writer(buffer);
    document.Accept(writer);
  }
  state.counters["bytes"] = static_cast<double>(buffer.GetSize());
}

BENCHMARK(Text)->Arg(10'000);
BENCHMARK(Json)->RangeMultiplier(10)->Range(1, 10'000);
BENCHMARK(Prometheus)->Arg(10'000);
BENCHMARK(JsonLibraryAlone)->Arg(10'000);

}  // namespace bench
