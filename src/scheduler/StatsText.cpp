#include <algorithm>
#include <cmath>
#include <iostream>
#include <map>
#include <sstream>
#include <vector>

#include "Tarvo/FdToStream.h"
#include "scheduler/StatsWalk.h"
#include "scheduler/Utf8.h"

namespace Tarvo {

namespace {

/// Three figures and the unit that suits them.
String duration(TaskTimeDuration nanoseconds) {
  static constexpr std::array<const char*, 4> units = {"ns", "µs", "ms", "s"};
  auto value = static_cast<double>(nanoseconds);
  std::size_t unit = 0;
  while (std::abs(value) >= 999.5 && unit + 1 < units.size()) {
    value /= 1000;
    ++unit;
  }
  const int decimals = unit == 0 || std::abs(value) >= 99.95 ? 0 : std::abs(value) >= 9.995 ? 1 : 2;
  return fmt::format("{:.{}f} {}", value, decimals, units.at(unit));
}

String mark(unsigned int highWaterMark) {
  return highWaterMark == TaskStat::noMark ? String("-") : fmt::format("{}", highWaterMark);
}

struct Row {
  TaskStat stat;
  bool completed;
};

struct Section {
  const TaskScheduler* scheduler;
  std::vector<Row> rows;
};

/// The table of one root.
class Table {
 public:
  Table(const TaskSchedulerRoot& root, const String& prefix) : root_(root) {
    StatsWalk walk(root);
    Section* section = nullptr;
    for (auto at = walk.next(); at != StatsWalk::At::end; at = walk.next()) {
      if (at == StatsWalk::At::scheduler) {
        section = &sections_[keyOf(walk.scheduler())];
        section->scheduler = &walk.scheduler();
        continue;
      }
      const bool completed = at == StatsWalk::At::completed;
      Row row{completed ? walk.completed() : walk.task().getStats(), completed};
      if (row.stat.taskName().starts_with(prefix)) section->rows.push_back(std::move(row));
    }
    for (auto& [key, each] : sections_) {
      std::stable_sort(each.rows.begin(), each.rows.end(), [](const Row& a, const Row& b) {
        return a.stat.taskTotalRunTime() > b.stat.taskTotalRunTime();
      });
    }
  }

  void render(std::ostream& out) {
    renderHead(out);
    out << fmt::format(
        "{:<2} {:<{}} {:>9} {:>8} {:>8} {:>8} {:>8} {:>8} {:>5} {:>5} {:>10} {:>8} {:>7}\n", "st",
        "task", nameWidth, "runs", "total", "average", "longest", "waited", "longest", ">2x", ">5x",
        "work", "most", "pending");
    renderSection(out, sections_.begin()->second, 0);
    // What a filter has left without the line that it belongs under.
    for (const auto& [key, section] : sections_) {
      if (rendered_.contains(&section)) continue;
      if (!section.rows.empty()) {
        out << fmt::format("   members of {}\n", shown(section.scheduler->schedulerName(), 0));
      }
      renderSection(out, section, 1);
    }
    renderQueues(out);
  }

 private:
  static constexpr std::size_t nameWidth = 40;

  /// The key of the parent task; the root's is the lowest.
  static TaskKey keyOf(const TaskScheduler& scheduler) {
    const auto* group = dynamic_cast<const TaskGroup*>(&scheduler);
    return group == nullptr ? TaskKey() : group->parentTask().taskKey();
  }

  static String shown(const String& name, std::size_t depth) {
    const std::size_t indent = std::min<std::size_t>(2 * depth, nameWidth / 2);
    return String(indent, ' ') + Impl::tableText(name, nameWidth - indent);
  }

  void renderHead(std::ostream& out) const {
    out << fmt::format("Scheduler {}: up {}, {} tasks, {} groups, scheduler waited {}, longest {}",
                       Impl::tableText(root_.schedulerName(), nameWidth),
                       duration(nanoseconds(TaskClock::now() - root_.startTime())),
                       root_.totalRegisteredTaskCount(), root_.taskGroupCount(),
                       duration(root_.lastSchedulerLatency()), duration(root_.maxSchedulerSlip()));
    if (root_.virtualTime()) out << ", virtual time";
    if (root_.suspended()) out << ", SUSPENDED";
    if (root_.taskTestYieldRatio() != 0) {
      out << fmt::format(", test yield ratio {}", root_.taskTestYieldRatio());
    }
    out << '\n';
  }

  void renderSection(std::ostream& out, const Section& section, std::size_t depth) {
    rendered_.insert(&section);
    for (const Row& row : section.rows) {
      renderRow(out, row, depth);
      if (row.completed || !row.stat.taskStatus().taskIsTaskGroup()) continue;
      const auto members = sections_.find(row.stat.taskKey());
      if (members != sections_.end()) renderSection(out, members->second, depth + 1);
    }
  }

  static void renderRow(std::ostream& out, const Row& row, std::size_t depth) {
    const TaskStat& stat = row.stat;
    const auto runs = static_cast<TaskTimeDuration>(std::max(1U, stat.taskRunCount()));
    const auto status =
        row.completed ? String{'c', stat.taskStatusString()[1]} : stat.taskStatusString();
    out << fmt::format(
        "{:<2} {:<{}} {:>9} {:>8} {:>8} {:>8} {:>8} {:>8} {:>5} {:>5} {:>10} {:>8} {:>7}\n", status,
        shown(stat.taskName(), depth), nameWidth, stat.taskRunCount(),
        duration(stat.taskTotalRunTime()), duration(stat.taskTotalRunTime() / runs),
        duration(stat.taskRunTimeHighWaterMark()), duration(stat.taskLastSchedulingLatency()),
        duration(stat.taskSchedulingLatencyHighWaterMark()), stat.taskQuantumViolation200(),
        stat.taskQuantumViolation500(), stat.taskWorkCountTotal(),
        mark(stat.taskWorkCountHighWaterMark()), stat.taskWorkPending());
  }

  void renderQueues(std::ostream& out) const {
    out << fmt::format("{:<10} {:>9} {:>9} {:>9} {:>11}\n", "queue", "runnable", "idle",
                       "completed", "runs");
    for (const auto& [priority, stats] : root_.queueStatsRoot()) {
      out << fmt::format("{:<10} {:>9} {:>9} {:>9} {:>11}\n", priority.toStrep(), stats.runnable(),
                         stats.notRunnable(), stats.completed(), stats.runCount());
    }
  }

  const TaskSchedulerRoot& root_;
  std::map<TaskKey, Section> sections_;
  std::set<const Section*> rendered_;
};

}  // namespace

void TaskSchedulerRoot::statsRenderTextForDebug(std::ostream& out, const String& prefix) const {
  sanityCheckCurrentRunningThread();
  Table(*this, prefix).render(out);
}

void TaskSchedulerRoot::statsRenderTextForDebug(int fd, const String& prefix) const {
  FdToStream out(fd);
  statsRenderTextForDebug(out, prefix);
}

String TaskSchedulerRoot::statsRenderTextForDebugToString(const String& prefix) const {
  std::ostringstream out;
  out.exceptions(std::ios::badbit);  // no memory must not look like a short report
  statsRenderTextForDebug(out, prefix);
  return out.str();
}

void TaskSchedulerRoot::statsRenderTextForDebugStdErr(const String& prefix) const {
  statsRenderTextForDebug(std::cerr, prefix);
}

}  // namespace Tarvo
