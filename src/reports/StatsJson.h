#ifndef TARVO_SRC_REPORTS_STATSJSON_H
#define TARVO_SRC_REPORTS_STATSJSON_H

#include <string_view>

#include "foundation/JsonWriter.h"
#include "reports/Report.h"
#include "reports/StatsWalk.h"

namespace Tarvo {

/// Writes the snapshot of a root as JSON, piece by piece.
class StatsJson final : public Report {
 public:
  StatsJson(const TaskSchedulerRoot& root, const String& prefix);

  /// A piece is a scheduler's head, a task or a record.
  bool step() override;

  std::string_view text() const override { return {buffer_.GetString(), buffer_.GetSize()}; }
  void clear() override { buffer_.Clear(); }

 private:
  void beginScheduler();
  void endScheduler();
  void queues();
  void record(const TaskStat& stat, bool completed);
  void text(const char* key, std::string_view value);
  template <typename Integer>
  void number(const char* key, Integer value);

  String prefix_;
  StatsWalk walk_;
  bool inScheduler_ = false;
  bool inCompleted_ = false;
  Impl::JsonBuffer buffer_;
  Impl::JsonWriter writer_{buffer_};
};

}  // namespace Tarvo

#endif
