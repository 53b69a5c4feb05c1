#ifndef TARVO_SRC_REPORTS_STATSPROMETHEUS_H
#define TARVO_SRC_REPORTS_STATSPROMETHEUS_H

#include <fmt/format.h>

#include <cstddef>
#include <map>

#include "reports/Report.h"
#include "reports/StatsWalk.h"

namespace Tarvo {

/// The figures of a root as a page for Prometheus. The first pass adds up the figures for each set
/// of labels, one task or record per step. The second pass writes the series, one per step. So all
/// series of a task are of one moment, although the page lists them far apart.
class StatsPrometheus final : public Report {
 public:
  /// The sum over all tasks of one name and priority in one scheduler. Series must have distinct
  /// labels; tasks may have equal names.
  struct Sum {
    TaskStat stat;
    unsigned int tasks = 0;
    std::uint64_t pending = 0;
    unsigned int completed = 0;
  };

  explicit StatsPrometheus(const TaskSchedulerRoot& root);

  bool step() override;
  std::string_view text() const override { return {text_.data(), text_.size()}; }
  void clear() override { text_.clear(); }

 private:
  void add(const TaskStat& stat, bool completed);
  void writeRoot();
  void writeHead(const char* name, const char* type, const char* help);
  void writeSeries(const char* name, const String& labels, const String& value);
  void beginFamily();

  const TaskSchedulerRoot& root_;
  String rootLabel_;
  String schedulerLabel_;  // of the scheduler that the walk is in
  StatsWalk walk_;
  std::map<String, Sum> sums_;  // by their labels
  bool added_ = false;          // the first pass is over
  std::size_t family_ = 0;
  std::map<String, Sum>::iterator next_;
  fmt::memory_buffer text_;
};

}  // namespace Tarvo

#endif
