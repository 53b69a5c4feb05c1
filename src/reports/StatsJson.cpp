#include "reports/StatsJson.h"

#include <cmath>
#include <type_traits>

#include "foundation/Utf8.h"

namespace Tarvo {

StatsJson::StatsJson(const TaskSchedulerRoot& root, const String& prefix)
    : prefix_(prefix), walk_(root) {
  writer_.StartObject();
  text("root", root.schedulerName());
  number("uptimeNs", nanoseconds(TaskClock::now() - root.startTime()));
  writer_.Key("virtualTime");
  writer_.Bool(root.virtualTime());
  writer_.Key("suspended");
  writer_.Bool(root.suspended());
  number("testYieldRatio", root.taskTestYieldRatio());
  writer_.Key("schedulers");
  writer_.StartArray();
}

void StatsJson::text(const char* key, std::string_view value) {
  writer_.Key(key);
  const String valid = Impl::validUtf8(value);
  writer_.String(valid.data(), static_cast<rapidjson::SizeType>(valid.size()));
}

template <typename Integer>
void StatsJson::number(const char* key, Integer value) {
  writer_.Key(key);
  if constexpr (std::is_signed_v<Integer>) {
    writer_.Int64(value);
  } else {
    writer_.Uint64(value);
  }
}

bool StatsJson::step() {
  const auto at = walk_.next();
  // A scheduler's tasks come first, then its records: the first step that is not at a task ends the
  // array of tasks.
  if (inScheduler_ && !inCompleted_ && at != StatsWalk::At::task) {
    writer_.EndArray();
    writer_.Key("completed");
    writer_.StartArray();
    inCompleted_ = true;
  }
  switch (at) {
    case StatsWalk::At::scheduler:
      endScheduler();
      beginScheduler();
      return true;
    case StatsWalk::At::task:
      if (walk_.task().taskStatsName().starts_with(prefix_)) record(walk_.task().getStats(), false);
      return true;
    case StatsWalk::At::completed:
      if (walk_.completed().taskName().starts_with(prefix_)) record(walk_.completed(), true);
      return true;
    case StatsWalk::At::end:
      break;
  }
  endScheduler();
  writer_.EndArray();
  writer_.EndObject();
  return false;
}

void StatsJson::beginScheduler() {
  const TaskScheduler& scheduler = walk_.scheduler();
  const auto* group = dynamic_cast<const TaskGroup*>(&scheduler);
  writer_.StartObject();
  text("name", scheduler.schedulerName());
  if (group != nullptr) text("key", subSchedulerKey(group->parentTask().getStats()));
  number("lastSchedulerLatencyNs", scheduler.lastSchedulerLatency());
  number("maxSchedulerSlip", scheduler.maxSchedulerSlip());
  queues();
  writer_.Key("tasks");
  writer_.StartArray();
  inScheduler_ = true;
  inCompleted_ = false;
}

void StatsJson::endScheduler() {
  if (!inScheduler_) return;
  writer_.EndArray();
  writer_.EndObject();
  inScheduler_ = false;
}

void StatsJson::queues() {
  writer_.Key("queues");
  writer_.StartObject();
  for (const auto& [priority, stats] : walk_.scheduler().queueStats()) {
    writer_.Key(priority.toStrep().c_str());
    writer_.StartObject();
    number("runnable", stats.runnable());
    number("notRunnable", stats.notRunnable());
    number("completed", stats.completed());
    number("runs", stats.runCount());
    writer_.EndObject();
  }
  writer_.EndObject();
}

void StatsJson::record(const TaskStat& stat, bool completed) {
  writer_.StartObject();
  text("name", stat.taskName());
  text("priority", stat.taskPriority().toStrep());
  if (completed) {
    number("completedCount", stat.taskCompletedCount());
  } else {
    text("key", stat.taskKey().toStrep());
    text("status", stat.taskStatusString());
    if (stat.taskStatus().taskIsTaskGroup()) text("subScheduler", subSchedulerKey(stat));
  }
  number("runs", stat.taskRunCount());
  number("totalRunNs", stat.taskTotalRunTime());
  number("longestRunNs", stat.taskRunTimeHighWaterMark());
  number("lastWaitNs", stat.taskLastSchedulingLatency());
  number("longestWaitNs", stat.taskSchedulingLatencyHighWaterMark());
  number("violations200", stat.taskQuantumViolation200());
  number("violations500", stat.taskQuantumViolation500());
  number("workTotal", stat.taskWorkCountTotal());
  number("workPending", stat.taskWorkPending());
  if (stat.taskWorkCountHighWaterMark() != TaskStat::noMark) {
    number("workMost", stat.taskWorkCountHighWaterMark());
    if (std::isfinite(stat.taskWorkCountDecayAvg())) {
      writer_.Key("workAverage");
      writer_.Double(static_cast<double>(stat.taskWorkCountDecayAvg()));
    }
  }
  if (stat.taskWorkPendingHighWaterMark() != TaskStat::noMark) {
    number("workPendingMost", stat.taskWorkPendingHighWaterMark());
  }
  number("threw", stat.taskThrewCount());
  writer_.EndObject();
}

String TaskSchedulerRoot::statsRenderJson(const String& prefix) const {
  sanityCheckCurrentRunningThread();
  StatsJson json(*this, prefix);
  while (json.step()) {
  }
  return String(json.text());
}

}  // namespace Tarvo
