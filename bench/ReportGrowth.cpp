#include "ReportGrowth.h"

#include <fmt/format.h>

#include <cmath>

#include "ReportChart.h"
#include "ReportText.h"

namespace report {

namespace {

struct Growth {
  const char* label;
  const char* row;  // without the size
  int largest;      // power of ten
  bool ours;
  const char* byDesign;
};

constexpr Growth growths[] = {
    {"run of a task", "TaskRunAmong", 6, true, "constant"},
    {"making and destroying a task", "TaskMadeAmong", 6, true, "constant"},
    {"timer stop + start", "TimerRestartAmong<TarvoWheel>", 6, true, "constant"},
    {"libevent: timer stop + start", "TimerRestartAmong<LibeventHeap>", 6, false, "logarithm"},
    {"intern a known name", "InternAmong", 6, true, "constant"},
    {"descriptor event", "DescriptorTaskAmong", 4, true, "constant"},
    {"libevent: descriptor event", "LibeventPersistAmong", 4, false, "constant"},
    {"JSON report of all", "ReportOf", 4, true, "linear"},
};

struct Memory {
  const char* label;
  const char* row;
};

constexpr Memory memories[] = {
    {"task, all of one name", "MemoryOfTask"},
    {"task with a name of its own", "MemoryOfNamedTask"},
    {"timer task, all of one name", "MemoryOfTimerTask"},
    {"timer on the wheel", "MemoryOfWheelTimer"},
    {"timer of libevent, with its place in the heap", "MemoryOfLibeventTimer"},
    {"interned name of 16 characters", "MemoryOfInternedName"},
    {"event of the history", "MemoryOfHistoryEvent"},
};

constexpr int largestOfAll = 6;

std::string rowAt(const Growth& growth, int power) {
  return fmt::format("{}/{:.0f}", growth.row, std::pow(10.0, power));
}

using Points = std::vector<std::pair<double, double>>;

Points pointsOf(const Growth& growth, const Rows& rows) {
  Points points;
  for (int power = 0; power <= growth.largest; ++power) {
    const Row* row = rows.find(rowAt(growth, power));
    if (row == nullptr || !row->measured()) continue;
    points.emplace_back(std::pow(10.0, power), row->time().median);
  }
  return points;
}

/// The slope of the straight line through the points, where both axes are logarithmic: 0 for what
/// is constant and 1 for what is linear.
double exponent(const Points& points) {
  double n = 0, x = 0, y = 0, xx = 0, xy = 0;
  for (const auto& [size, cost] : points) {
    const double lx = std::log10(size), ly = std::log10(cost);
    n += 1;
    x += lx;
    y += ly;
    xx += lx * lx;
    xy += lx * ly;
  }
  return (n * xy - x * y) / (n * xx - x * x);
}

std::string growthLine(const Growth& growth, const Rows& rows) {
  auto line = fmt::format("| {} ", growth.label);
  for (int power = 0; power <= largestOfAll; ++power) {
    const Row* row = power <= growth.largest ? rows.find(rowAt(growth, power)) : nullptr;
    std::string cell;
    if (row != nullptr) cell = row->measured() ? duration(row->time().median) : "skipped";
    line += fmt::format("| {} ", cell);
  }
  const auto points = pointsOf(growth, rows);
  const auto slope = points.size() > 1 ? fmt::format("{:.2f}", exponent(points)) : "–";
  return line + fmt::format("| {} | {} |\n", slope, growth.byDesign);
}

}  // namespace

std::vector<std::string> growthRows() {
  std::vector<std::string> names;
  for (const auto& growth : growths) {
    for (int power = 0; power <= growth.largest; ++power) names.push_back(rowAt(growth, power));
  }
  for (const auto& memory : memories) names.emplace_back(memory.row);
  return names;
}

std::string growthSection(const Rows& rows) {
  std::string out =
      "## Growth\n\nOne operation among so many of its kind. The exponent is the slope of the "
      "line in the chart: 0 is constant, 1 is linear. The exponent also holds what it costs that "
      "many objects do not fit into the caches of the processor, so it cannot tell a logarithm "
      "from a constant; the last column says what the algorithm "
      "does.\n\n![Growth](performance/growth.svg)\n\n| |";
  for (int power = 0; power <= largestOfAll; ++power) {
    out += fmt::format(" {} |", count(std::pow(10.0, power)));
  }
  out += " exponent | by design |\n|---|";
  for (int power = 0; power <= largestOfAll; ++power) out += "--:|";
  out += "--:|---|\n";
  for (const auto& growth : growths) out += growthLine(growth, rows);
  return out + "\n";
}

std::string growthChart(const Rows& rows) {
  std::vector<ChartLine> lines;
  for (const auto& growth : growths) {
    auto points = pointsOf(growth, rows);
    if (!points.empty()) lines.push_back({growth.label, std::move(points), growth.ours});
  }
  return lineChart(lines);
}

std::string memorySection(const Rows& rows) {
  std::string out =
      "## Memory\n\nBytes for each of a hundred thousand: the type itself, and what the heap gave "
      "out, with counters of the allocator and all that belongs to the object.\n\n"
      "| | type | heap | time to make one |\n|---|--:|--:|--:|\n";
  for (const auto& [label, name] : memories) {
    const Row* row = rows.find(name);
    if (row == nullptr || !row->measured()) continue;
    out += fmt::format("| {} | {:.0f} | {:.1f} | {} |\n", label, row->counters.at("type_bytes"),
                       row->counters.at("heap_bytes"), duration(row->time().median));
  }
  return out + "\n";
}

}  // namespace report
