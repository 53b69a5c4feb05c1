/// What it costs to tell what tasks did: one iteration is one report of all of them. Beside it the
/// same JSON document, parsed before, written by the JSON library alone.

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "Runs.h"

namespace bench {

/// A root with tasks of names of their own, that have run once.
struct Tasks {
  explicit Tasks(std::size_t n) : tasks(idleTasks(root, n)) {
    for (const auto& task : tasks) task->taskRunFromTest();
  }
  LoopOfRow loop;
  std::shared_ptr<Tarvo::TaskSchedulerRoot> root = Tarvo::schedulerRootTarvo();
  std::vector<std::shared_ptr<Idle>> tasks;
};

template <typename Render, typename... Prefix>
void report(State& state, Render render, Prefix... prefix) {
  const Tasks tasks(many(state));
  std::size_t bytes = 0;
  for (auto _ : state) bytes = (*tasks.root.*render)(prefix...).size();
  state.counters["bytes"] = static_cast<double>(bytes);
}

using Root = Tarvo::TaskSchedulerRoot;
BENCHMARK_CAPTURE(report, text, &Root::statsRenderTextForDebugToString, "")
    ->Name("Text")
    ->Arg(10'000);
BENCHMARK_CAPTURE(report, json, &Root::statsRenderJson, "")
    ->Name("Json")
    ->RangeMultiplier(10)
    ->Range(1, 10'000);
BENCHMARK_CAPTURE(report, pages, &Root::statsRenderPrometheus)->Name("Prometheus")->Arg(10'000);

void JsonLibraryAlone(State& state) {
  rapidjson::Document document;
  document.Parse(Tasks(many(state)).root->statsRenderJson().c_str());
  rapidjson::StringBuffer buffer;
  for (auto _ : state) {
    buffer.Clear();
    rapidjson::Writer writer(buffer);
    document.Accept(writer);
  }
  state.counters["bytes"] = static_cast<double>(buffer.GetSize());
}

BENCHMARK(JsonLibraryAlone)->Arg(10'000);

}  // namespace bench
