#ifndef TARVO_BENCH_REPORTROWS_H
#define TARVO_BENCH_REPORTROWS_H

/// What the benchmark programs measured: each row with all its repetitions.

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace report {

/// The middle and the quartiles of some numbers.
struct Middle {
  double low = 0, median = 0, high = 0;
};
Middle middleOf(std::vector<double> numbers);

struct Row {
  std::vector<double> nanoseconds;  // of processor time per iteration, one for each repetition
  std::map<std::string, double> counters;
  std::string skipped;             // for want of descriptors, in these words
  std::set<std::string> failures;  // any other reasons why repetitions gave up

  bool measured() const { return skipped.empty() && failures.empty() && !nanoseconds.empty(); }
  Middle time() const { return middleOf(nanoseconds); }
  /// The quartile range in percent of the median.
  double spread() const;
};

/// The ratio of the medians of two rows, between the quartiles of the ratios of each repetition of
/// the one to each of the other.
Middle ratio(const Row& ours, const Row& peer);

class Rows {
 public:
  /// Adds what a program wrote with --benchmark_out_format=json.
  void read(const std::string& file);
  /// Null when no program knows the row.
  const Row* find(const std::string& name) const;
  const std::map<std::string, Row>& all() const { return rows_; }
  /// Of the row with the fewest and of the row with the most of them.
  std::pair<std::size_t, std::size_t> repetitions() const;

 private:
  std::map<std::string, Row> rows_;
};

}  // namespace report

#endif
