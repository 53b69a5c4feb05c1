#ifndef TARVO_BENCH_REPORTCHART_H
#define TARVO_BENCH_REPORTCHART_H

/// Charts as SVG without a background, in colours that can be read on white and on black.

#include <string>
#include <utility>
#include <vector>

namespace report {

struct ChartBar {
  std::string label;
  double nanoseconds;
  bool ours;
};
struct ChartGroup {
  std::string label;
  std::vector<ChartBar> bars;
};
/// Horizontal bars with their values; each group is scaled to its own longest bar.
std::string barChart(const std::vector<ChartGroup>& groups);

struct ChartLine {
  std::string label;
  std::vector<std::pair<double, double>> points;  // size and nanoseconds
  bool ours;
};
/// Cost against size, both logarithmic.
std::string lineChart(const std::vector<ChartLine>& lines);

}  // namespace report

#endif
