#include <algorithm>
#include <array>
#include <cmath>
#include <iostream>
#include <map>
#include <sstream>
#include <vector>

#include "Tarvo/FdToStream.h"
#include "reports/DisplayText.h"
#include "reports/StatsWalk.h"

namespace Tarvo {

namespace {

/// A duration with three significant digits, in the unit that fits.
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
  const TaskScheduler* scheduler = nullptr;
  std::vector<Row> rows;
  bool arranged = false;
};

/// A line of the table: a row with its depth, or, if `row` is null, a heading.
struct Line {
  const Row* row;
  std::size_t depth;
  String name;
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
    arrange(sections_.begin()->second, 0);
    // Members of a group whose own line was filtered out by the prefix.
    for (auto& [key, section] : sections_) {
      if (section.arranged || section.rows.empty()) continue;
      lines_.push_back({nullptr, 0, "members of " + section.scheduler->schedulerName()});
      arrange(section, 1);
    }
    for (Line& line : lines_) {
      const std::size_t indent = std::min<std::size_t>(2 * line.depth, longestName / 2);
      line.name = String(indent, ' ') + Impl::tableText(line.name, longestName - indent);
      nameWidth_ = std::max(nameWidth_, Impl::columns(line.name));
    }
    renderHead(out);
    renderColumns(out, "st", "task", "runs", "total", "average", "longest", "waited", "longest",
                  ">2x", ">5x", "work", "most", "pending", "threw");
    for (const Line& line : lines_) renderLine(out, line);
    renderQueues(out);
  }

 private:
  static constexpr std::size_t longestName = 40;

  /// The key of the group's parent task. The root has the lowest key, so it sorts first.
  static TaskKey keyOf(const TaskScheduler& scheduler) {
    const auto* group = dynamic_cast<const TaskGroup*>(&scheduler);
    return group == nullptr ? TaskKey() : group->parentTask().taskKey();
  }

  void renderHead(std::ostream& out) const {
    out << fmt::format("Scheduler {}: up {}, {} tasks, {} groups, scheduler waited {}, longest {}",
                       Impl::tableText(root_.schedulerName(), longestName),
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

  void arrange(Section& section, std::size_t depth) {
    section.arranged = true;
    for (const Row& row : section.rows) {
      lines_.push_back({&row, depth, row.stat.taskName()});
      if (row.completed || !row.stat.taskStatus().taskIsTaskGroup()) continue;
      const auto members = sections_.find(row.stat.taskKey());
      if (members != sections_.end()) arrange(members->second, depth + 1);
    }
  }

  void renderLine(std::ostream& out, const Line& line) const {
    if (line.row == nullptr) {
      out << "   " << line.name << '\n';
      return;
    }
    const TaskStat& stat = line.row->stat;
    const auto runs = static_cast<TaskTimeDuration>(std::max(1U, stat.taskRunCount()));
    String status = stat.taskStatusString();
    if (line.row->completed) status[0] = 'c';
    renderColumns(
        out, status, line.name, stat.taskRunCount(), duration(stat.taskTotalRunTime()),
        duration(stat.taskTotalRunTime() / runs), duration(stat.taskRunTimeHighWaterMark()),
        duration(stat.taskLastSchedulingLatency()),
        duration(stat.taskSchedulingLatencyHighWaterMark()), stat.taskQuantumViolation200(),
        stat.taskQuantumViolation500(), stat.taskWorkCountTotal(),
        mark(stat.taskWorkCountHighWaterMark()), stat.taskWorkPending(), stat.taskThrewCount());
  }

  String padded(const String& name) const {
    return name + String(nameWidth_ - Impl::columns(name), ' ');
  }

  template <typename Status, typename... Figures>
  void renderColumns(std::ostream& out, const Status& status, const String& name,
                     const Figures&... figures) const {
    out << fmt::format(
        "{:<2} {} {:>8} {:>7} {:>7} {:>7} {:>7} {:>7} {:>4} {:>4} {:>10} {:>7} {:>7} {:>5}\n",
        status, padded(name), figures...);
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
  std::vector<Line> lines_;
  std::size_t nameWidth_ = 10;
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
  out.exceptions(std::ios::badbit);  // throw std::bad_alloc instead of returning half a report
  statsRenderTextForDebug(out, prefix);
  return out.str();
}

void TaskSchedulerRoot::statsRenderTextForDebugStdErr(const String& prefix) const {
  statsRenderTextForDebug(std::cerr, prefix);
}

}  // namespace Tarvo
