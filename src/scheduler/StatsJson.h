#ifndef TARVO_SRC_SCHEDULER_STATSJSON_H
#define TARVO_SRC_SCHEDULER_STATSJSON_H

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <string_view>

#include "scheduler/StatsWalk.h"

namespace Tarvo {

/// Writes the snapshot of a root as JSON, piece by piece.
class StatsJson {
 public:
  StatsJson(const TaskSchedulerRoot& root, const String& prefix);

  /// Writes the next piece: a scheduler's head, a task or a record. False after the last one.
  bool step();

  /// What was written and not yet taken.
  std::string_view text() const { return {buffer_.GetString(), buffer_.GetSize()}; }
  void clear() { buffer_.Clear(); }

 private:
  using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

  void beginScheduler();
  void endScheduler();
  void queues();
  void record(const TaskStat& stat, bool completed);
  void text(const char* key, std::string_view value);
  template <typename Integer>
  void number(const char* key, Integer value);

  const TaskSchedulerRoot& root_;
  String prefix_;
  StatsWalk walk_;
  bool inScheduler_ = false;
  bool inCompleted_ = false;
  rapidjson::StringBuffer buffer_;
  Writer writer_{buffer_};
};

}  // namespace Tarvo

#endif
