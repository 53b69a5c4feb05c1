#ifndef TARVO_BENCH_REPORTTABLE_H
#define TARVO_BENCH_REPORTTABLE_H

/// What the report compares. To add a row or to follow a new name is one line in
/// ReportComparisons.cpp or ReportTopics.cpp; a row that is named there and measured by no program
/// fails the report.

#include <string>
#include <vector>

namespace report {

struct Pair {
  std::string ours, peer;
};

/// One line of the summary: a ratio and how far it shall reach down.
struct Comparison {
  std::string path;
  std::vector<Pair> pairs;  // the one with the highest ratio counts
  std::vector<double> reach;
};
std::vector<Comparison> comparisons();

struct Bar {
  std::string label;
  std::string row;
};

/// What is measured under the same circumstances: our rows and those of the peers.
struct Case {
  std::string label;
  std::vector<Bar> ours;
  std::vector<Bar> peers;
};

/// One table and one chart.
struct Topic {
  std::string file;  // of the chart, without suffix
  std::string title;
  std::string text;
  std::vector<Case> cases;
};
std::vector<Topic> topics();

/// Sizes that the timers are measured with.
inline const std::vector<std::size_t> timerSizes{1'000, 10'000, 100'000, 1'000'000};

}  // namespace report

#endif
