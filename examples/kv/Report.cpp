#include "Report.h"

#include <fmt/format.h>

#include <cstdio>
#include <optional>
#include <sstream>

namespace kv {

namespace {

struct Row {
  const char* name;
  double unit;  // of the work that the task reports
  const char* workName;
};

constexpr Row rootRows[] = {
    {"signals:read", 1, "signals"}, {"listener:read", 1, "clients"},
    {"client:read", 1, "requests"}, {"client:write", 1, ""},
    {"idle", 1, "clients dropped"}, {"background", 1, "runs of members"},
};
constexpr Row memberRows[] = {
    {"expiry", 1, "keys"},
    {"compaction", 1e6, "MB copied"},
    {"digest", 1e6, "MB"},
};

/// The figures of all tasks of a name, finished and not.
std::optional<Tarvo::TaskStat> figures(const Tarvo::TaskScheduler& scheduler, const char* name) {
  auto sum = scheduler.completedTaskStatForTest(name);
  for (const Tarvo::TaskImpl& task : scheduler.registeredTasks()) {
    if (task.taskStatsName() != name) continue;
    if (sum) {
      *sum += task.getStats();
    } else {
      sum = task.getStats();
      sum->taskCompletedCountIs(1);
    }
  }
  return sum;
}

void printRow(const Tarvo::TaskScheduler& scheduler, const Row& row, const char* indent) {
  const auto stat = figures(scheduler, row.name);
  if (!stat) return;
  const auto microseconds = [](Tarvo::TaskTimeDuration time) {
    return static_cast<double>(time) / 1e3;
  };
  const unsigned runs = stat->taskRunCount();
  const double total = microseconds(stat->taskTotalRunTime());
  fmt::print("{:<14} {}  {:>5} {:>8} {:>9.1f} {:>7.1f} {:>8.0f} {:>8.0f} {:>4} {:>3}",
             fmt::format("{}{}", indent, row.name), stat->taskPriority().oneChar(),
             stat->taskCompletedCount(), runs, total / 1e3, runs == 0 ? 0 : total / runs,
             microseconds(stat->taskRunTimeHighWaterMark()),
             microseconds(stat->taskSchedulingLatencyHighWaterMark()),
             stat->taskQuantumViolation200(), stat->taskQuantumViolation500());
  const double work = static_cast<double>(stat->taskWorkCountTotal()) / row.unit;
  if (*row.workName != '\0') fmt::print("  {:.0f} {}", work, row.workName);
  fmt::print("\n");
}

}  // namespace

void printTasks(const Tarvo::TaskSchedulerRoot& root, const Tarvo::TaskGroup& background) {
  fmt::print("{:<14} {} {:>5} {:>8} {:>9} {:>7} {:>8} {:>8} {:>4} {:>3}  {}\n", "task", "pr",
             "tasks", "runs", "total ms", "avg us", "max us", "wait us", ">2x", ">5x", "work");
  for (const Row& row : rootRows) printRow(root, row, "");
  for (const Row& row : memberRows) printRow(background, row, "  ");
}

void printStore(const Store& store, const Background& background) {
  const auto megabytes = [](std::size_t bytes) { return static_cast<double>(bytes) / 1e6; };
  const auto digest = figures(background.group(), "digest");
  const unsigned rounds = background.digestRounds();
  fmt::print("data    {} keys, {:.1f} MB in {:.1f} MB of memory; {:.0f} MB of garbage given back\n",
             store.keyCount(), megabytes(store.valueBytes()), megabytes(store.log().bytes()),
             megabytes(store.freedBytes()));
  if (!digest || rounds == 0) return;
  fmt::print("digest  {} rounds over all data, {:.1f} ms of work each; {} values corrupt\n", rounds,
             static_cast<double>(digest->taskTotalRunTime()) / 1e6 / rounds,
             background.corruptValues());
}

std::string lastEvents(const Tarvo::TaskSchedulerRoot& root, std::size_t count) {
  std::istringstream text(root.historyRenderTextForDebugToString());
  constexpr std::size_t headerLines = 2;
  std::string events;
  std::string line;
  for (std::size_t number = 0; number < headerLines + count && std::getline(text, line); ++number) {
    if (number >= headerLines && !line.empty()) events += line + "\n";
  }
  return events;
}

}  // namespace kv
