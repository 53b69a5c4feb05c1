#ifndef TARVO_SRC_REPORTS_STATSPROMETHEUS_H
#define TARVO_SRC_REPORTS_STATSPROMETHEUS_H

#include <fmt/format.h>

#include <cstddef>
#include <map>

#include "reports/Report.h"
#include "reports/StatsWalk.h"

namespace Tarvo {

/// The figures of a root as a page for Prometheus. First it adds up what stands under one set of
/// labels, a task or record a step; then it writes the series, one a step. So all series of a task
/// are of one moment.
class StatsPrometheus final : public Report {
 public:
  /// Everything of one name and priority in one scheduler: series must be distinct, tasks need not.
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
  String schedulerLabel_;  // of what the walk stands at
  StatsWalk walk_;
  std::map<String, Sum> sums_;  // by their labels
  bool added_ = false;          // everything
  std::size_t family_ = 0;
  std::map<String, Sum>::iterator next_;
  fmt::memory_buffer text_;
};

}  // namespace Tarvo

#endif
