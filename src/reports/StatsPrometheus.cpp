#include <functional>
#include <map>
#include <tuple>

#include "reports/DisplayText.h"
#include "reports/StatsWalk.h"

namespace Tarvo {

namespace {

/// Everything of one name in one scheduler: series must be distinct, tasks need not be.
struct Sum {
  TaskStat stat;
  unsigned int tasks = 0;
  std::uint64_t pending = 0;
  unsigned int completed = 0;
};
using SumKey = std::tuple<String, String, TaskPriority>;  // scheduler, task, priority
using Sums = std::map<SumKey, Sum>;

String labelValue(const String& text) {
  String escaped;
  for (const char c : Impl::validUtf8(text)) {
    if (c == '\\' || c == '"') escaped += '\\';
    c == '\n' ? escaped += "\\n" : escaped += c;
  }
  return escaped;
}

Sums sumsOf(const TaskSchedulerRoot& root) {
  Sums sums;
  StatsWalk walk(root);
  for (auto at = walk.next(); at != StatsWalk::At::end; at = walk.next()) {
    if (at == StatsWalk::At::scheduler) continue;
    const bool completed = at == StatsWalk::At::completed;
    const TaskStat stat = completed ? walk.completed() : walk.task().getStats();
    Sum& sum = sums[{labelValue(walk.scheduler().schedulerName()), labelValue(stat.taskName()),
                     stat.taskPriority()}];
    sum.stat.taskNameIs(stat.taskNameRef());  // names that differ may be shown alike
    sum.stat += stat;
    if (completed) {
      sum.completed += stat.taskCompletedCount();
      continue;
    }
    ++sum.tasks;
    sum.pending += stat.taskWorkPending();
  }
  return sums;
}

double seconds(TaskTimeDuration duration) { return static_cast<double>(duration) / 1e9; }

class Page {
 public:
  explicit Page(const TaskSchedulerRoot& root) : root_(root), sums_(sumsOf(root)) {}

  template <typename Value>
  void family(const char* name, const char* type, const char* help, Value value) {
    head(name, type, help);
    for (const auto& [key, sum] : sums_) {
      text_ +=
          fmt::format("{}{{scheduler=\"{}\",task=\"{}\",priority=\"{}\"}} {}\n", name,
                      std::get<0>(key), std::get<1>(key), std::get<2>(key).toStrep(), value(sum));
    }
  }
  template <typename Value>
  void queueFamily(const char* name, const char* type, const char* help, Value value) {
    head(name, type, help);
    for (const auto& [priority, stats] : root_.queueStatsRoot()) {
      text_ += fmt::format("{}{{priority=\"{}\"}} {}\n", name, priority.toStrep(), value(stats));
    }
  }
  void figure(const char* name, const char* type, const char* help, double value) {
    head(name, type, help);
    text_ += fmt::format("{} {}\n", name, value);
  }
  const String& text() const { return text_; }

 private:
  void head(const char* name, const char* type, const char* help) {
    text_ += fmt::format("# HELP {} {}\n# TYPE {} {}\n", name, help, name, type);
  }

  const TaskSchedulerRoot& root_;
  Sums sums_;
  String text_;
};

}  // namespace

String TaskSchedulerRoot::statsRenderPrometheus() const {
  sanityCheckCurrentRunningThread();
  Page page(*this);
  page.family("tarvo_tasks", "gauge", "Registered tasks.",
              [](const Sum& sum) { return sum.tasks; });
  page.family("tarvo_task_runs_total", "counter", "Runs.",
              [](const Sum& sum) { return sum.stat.taskRunCount(); });
  page.family("tarvo_task_run_seconds_total", "counter", "Time spent in runs.",
              [](const Sum& sum) { return seconds(sum.stat.taskTotalRunTime()); });
  page.family("tarvo_task_longest_run_seconds", "gauge", "The longest run.",
              [](const Sum& sum) { return seconds(sum.stat.taskRunTimeHighWaterMark()); });
  page.family(
      "tarvo_task_longest_wait_seconds", "gauge", "The longest wait on a run queue.",
      [](const Sum& sum) { return seconds(sum.stat.taskSchedulingLatencyHighWaterMark()); });
  page.family("tarvo_task_last_wait_seconds", "gauge", "The last wait on a run queue.",
              [](const Sum& sum) { return seconds(sum.stat.taskLastSchedulingLatency()); });
  page.family("tarvo_task_completed_total", "counter", "Tasks that have come to their end.",
              [](const Sum& sum) { return sum.completed; });
  page.family("tarvo_task_violations_200_total", "counter", "Runs of two to five quanta.",
              [](const Sum& sum) { return sum.stat.taskQuantumViolation200(); });
  page.family("tarvo_task_violations_500_total", "counter", "Runs of five quanta and more.",
              [](const Sum& sum) { return sum.stat.taskQuantumViolation500(); });
  page.family("tarvo_task_work_total", "counter", "Units of work, as the tasks report them.",
              [](const Sum& sum) { return sum.stat.taskWorkCountTotal(); });
  page.family("tarvo_task_work_pending", "gauge", "Units left to do, as last reported.",
              [](const Sum& sum) { return sum.pending; });
  page.family("tarvo_task_threw_total", "counter", "Runs that an exception ended.",
              [](const Sum& sum) { return sum.stat.taskThrewCount(); });
  page.queueFamily("tarvo_queue_runnable", "gauge", "Tasks on run queues.",
                   [](const auto& stats) { return stats.runnable(); });
  page.queueFamily("tarvo_queue_idle", "gauge", "Registered tasks that are on no run queue.",
                   [](const auto& stats) { return stats.notRunnable(); });
  page.queueFamily("tarvo_queue_runs_total", "counter", "Tasks taken from run queues.",
                   [](const auto& stats) { return stats.runCount(); });
  page.figure("tarvo_scheduler_suspended", "gauge", "1 while nothing runs.", suspended() ? 1 : 0);
  page.figure("tarvo_scheduler_virtual_time", "gauge", "1 while quanta pass in virtual time.",
              virtualTime() ? 1 : 0);
  page.figure("tarvo_scheduler_latency_seconds", "gauge",
              "From the last request for a run step to the step.", seconds(lastSchedulerLatency()));
  page.figure("tarvo_scheduler_slip_seconds", "gauge", "The longest such time.",
              seconds(maxSchedulerSlip()));
  page.figure("tarvo_scheduler_uptime_seconds", "gauge", "Since the root was made.",
              seconds(nanoseconds(TaskClock::now() - startTime())));
  return page.text();
}

}  // namespace Tarvo
