#include "reports/StatsPrometheus.h"

#include <pthread.h>

#include <array>
#include <iterator>

#include "Tarvo/Thread.h"
#include "foundation/Utf8.h"

namespace Tarvo {

namespace {

using Sum = StatsPrometheus::Sum;

String label(const char* name, const String& value) {
  String text = fmt::format("{}=\"", name);
  for (const char c : Impl::validUtf8(value)) {
    if (c == '\\' || c == '"') text += '\\';
    c == '\n' ? text += "\\n" : text += c;
  }
  return text += '"';
}

String seconds(TaskTimeDuration duration) {
  return fmt::to_string(static_cast<double>(duration) / 1e9);
}

/// The shared root of a thread is named after pthread_self(), which differs in every run of the
/// program. Its series would have new labels each time, so the thread's name is used instead.
String schedulerName(const TaskScheduler& scheduler) {
  const String& name = scheduler.schedulerName();
  return name == fmt::format("thread:{}", pthread_self()) ? threadName() : name;
}

struct Family {
  const char* name;
  const char* type;
  const char* help;
  String (*value)(const Sum& sum);
};

constexpr std::array families = {
    Family{"tarvo_tasks", "gauge", "Registered tasks.",
           [](const Sum& sum) { return fmt::to_string(sum.tasks); }},
    Family{"tarvo_task_runs_total", "counter", "Runs.",
           [](const Sum& sum) { return fmt::to_string(sum.stat.taskRunCount()); }},
    Family{"tarvo_task_run_seconds_total", "counter", "Time spent in runs.",
           [](const Sum& sum) { return seconds(sum.stat.taskTotalRunTime()); }},
    Family{"tarvo_task_longest_run_seconds", "gauge", "The longest run.",
           [](const Sum& sum) { return seconds(sum.stat.taskRunTimeHighWaterMark()); }},
    Family{"tarvo_task_longest_wait_seconds", "gauge", "The longest wait on a run queue.",
           [](const Sum& sum) { return seconds(sum.stat.taskSchedulingLatencyHighWaterMark()); }},
    Family{"tarvo_task_last_wait_seconds", "gauge", "The last wait on a run queue.",
           [](const Sum& sum) { return seconds(sum.stat.taskLastSchedulingLatency()); }},
    Family{"tarvo_task_completed_total", "counter", "Tasks that have come to their end.",
           [](const Sum& sum) { return fmt::to_string(sum.completed); }},
    Family{"tarvo_task_violations_200_total", "counter", "Runs of two to five quanta.",
           [](const Sum& sum) { return fmt::to_string(sum.stat.taskQuantumViolation200()); }},
    Family{"tarvo_task_violations_500_total", "counter", "Runs of five quanta and more.",
           [](const Sum& sum) { return fmt::to_string(sum.stat.taskQuantumViolation500()); }},
    Family{"tarvo_task_threw_total", "counter", "Runs that an exception ended.",
           [](const Sum& sum) { return fmt::to_string(sum.stat.taskThrewCount()); }},
    Family{"tarvo_task_work_total", "counter", "Units of work, as the tasks report them.",
           [](const Sum& sum) { return fmt::to_string(sum.stat.taskWorkCountTotal()); }},
    Family{"tarvo_task_work_pending", "gauge", "Units left to do, as last reported.",
           [](const Sum& sum) { return fmt::to_string(sum.pending); }},
};

}  // namespace

StatsPrometheus::StatsPrometheus(const TaskSchedulerRoot& root)
    : root_(root), rootLabel_(label("root", threadName())), walk_(root) {}

bool StatsPrometheus::step() {
  if (!added_) {
    switch (walk_.next()) {
      case StatsWalk::At::scheduler:
        schedulerLabel_ = label("scheduler", schedulerName(walk_.scheduler()));
        return true;
      case StatsWalk::At::task:
        add(walk_.task().getStats(), false);
        return true;
      case StatsWalk::At::completed:
        add(walk_.completed(), true);
        return true;
      case StatsWalk::At::end:
        break;
    }
    added_ = true;
    writeRoot();
    beginFamily();
    return !sums_.empty();
  }
  const Family& family = families.at(family_);
  writeSeries(family.name, next_->first, family.value(next_->second));
  // In the last family each sum is erased once it is written. Destroying all sums at the end would
  // take longer than a quantum.
  const bool last = family_ + 1 == families.size();
  next_ = last ? sums_.erase(next_) : std::next(next_);
  if (next_ != sums_.end()) return true;
  ++family_;
  if (last) return false;
  beginFamily();
  return true;
}

void StatsPrometheus::add(const TaskStat& stat, bool completed) {
  Sum& sum = sums_[fmt::format("{},{},{}", schedulerLabel_, label("task", stat.taskName()),
                               label("priority", stat.taskPriority().toStrep()))];
  // operator+= requires equal names. Different names may have the same label, when validUtf8() has
  // replaced invalid bytes.
  sum.stat.taskNameIs(stat.taskNameRef());
  sum.stat += stat;
  if (completed) {
    sum.completed += stat.taskCompletedCount();
    return;
  }
  ++sum.tasks;
  sum.pending += stat.taskWorkPending();
}

void StatsPrometheus::writeRoot() {
  const auto queues = root_.queueStatsRoot();
  const auto queueFamily = [&](const char* name, const char* type, const char* help, auto value) {
    writeHead(name, type, help);
    for (const auto& [priority, stats] : queues) {
      writeSeries(name, label("priority", priority.toStrep()), fmt::to_string(value(stats)));
    }
  };
  const auto figure = [&](const char* name, const char* help, const String& value) {
    writeHead(name, "gauge", help);
    writeSeries(name, "", value);
  };
  queueFamily("tarvo_queue_runnable", "gauge", "Tasks on run queues.",
              [](const auto& stats) { return stats.runnable(); });
  queueFamily("tarvo_queue_idle", "gauge", "Registered tasks that are on no run queue.",
              [](const auto& stats) { return stats.notRunnable(); });
  queueFamily("tarvo_queue_runs_total", "counter", "Tasks taken from run queues.",
              [](const auto& stats) { return stats.runCount(); });
  figure("tarvo_scheduler_suspended", "1 while nothing runs.", root_.suspended() ? "1" : "0");
  figure("tarvo_scheduler_virtual_time", "1 while quanta pass in virtual time.",
         root_.virtualTime() ? "1" : "0");
  figure("tarvo_scheduler_latency_seconds", "From the last request for a run step to the step.",
         seconds(root_.lastSchedulerLatency()));
  figure("tarvo_scheduler_slip_seconds", "The longest such time.",
         seconds(root_.maxSchedulerSlip()));
  figure("tarvo_scheduler_uptime_seconds", "Since the root was made.",
         seconds(nanoseconds(TaskClock::now() - root_.startTime())));
}

void StatsPrometheus::beginFamily() {
  next_ = sums_.begin();
  if (next_ == sums_.end()) return;
  const Family& family = families.at(family_);
  writeHead(family.name, family.type, family.help);
}

void StatsPrometheus::writeHead(const char* name, const char* type, const char* help) {
  fmt::format_to(std::back_inserter(text_), "# HELP {} {}\n# TYPE {} {}\n", name, help, name, type);
}

void StatsPrometheus::writeSeries(const char* name, const String& labels, const String& value) {
  fmt::format_to(std::back_inserter(text_), "{}{{{}{}{}}} {}\n", name, rootLabel_,
                 labels.empty() ? "" : ",", labels, value);
}

String TaskSchedulerRoot::statsRenderPrometheus() const {
  sanityCheckCurrentRunningThread();
  StatsPrometheus page(*this);
  while (page.step()) {
  }
  return String(page.text());
}

}  // namespace Tarvo
