#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <iterator>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "Tarvo/TaskSchedulerHistory.h"
#include "foundation/JsonWriter.h"
#include "foundation/Utf8.h"
#include "reports/StatsWalk.h"

namespace Tarvo {

namespace {

using Type = TaskSchedulerEventType;
using Event = TaskSchedulerHistory::Event;
using TimePoint = TaskClock::time_point;

/// The history in Chrome's trace event format. Runs are complete events ("X"), since they nest.
/// Waits, suspensions and idle times are asynchronous events ("b" and "e"), since they overlap. All
/// other events are instants ("i").
class Timeline {
 public:
  explicit Timeline(const TaskSchedulerRoot& root) : root_(root) {
    writer_.StartObject();
    writer_.Key("displayTimeUnit");
    writer_.String("ns");
    const auto& events = root.history().events();
    if (!events.empty()) startAt(events.back().time);
    writer_.Key("traceEvents");
    writer_.StartArray();
    nameTracks();
    learnMembers();
    for (auto event = events.rbegin(); event != events.rend(); ++event) take(*event);
    if (!events.empty()) closeRuns(events.front().time);
    writer_.EndArray();
    writer_.EndObject();
  }
  String text() const { return {buffer_.GetString(), buffer_.GetSize()}; }

 private:
  struct Run {
    const ConstStringRef::Elem* who;
    TimePoint start;
    int track;
  };
  using Open = std::map<const ConstStringRef::Elem*, std::deque<int>>;  // the ids

  void startAt(TimePoint oldest) {
    oldest_ = oldest;
    writer_.Key("otherData");
    writer_.StartObject();
    writer_.Key("oldestEventNs");
    writer_.Int64(nanoseconds(oldest.time_since_epoch()));
    writer_.EndObject();
  }

  void nameTracks() {
    int tracks = 1;
    StatsWalk walk(root_);
    int track = 0;
    for (auto at = walk.next(); at != StatsWalk::At::end; at = walk.next()) {
      if (at == StatsWalk::At::scheduler) {
        track = &walk.scheduler() == &root_ ? 1 : ++tracks;
        schedulerTracks_[walk.scheduler().schedulerNameRef().elem()] = track;
        begin("M", "thread_name", nullptr, track);
        writer_.Key("args");
        writer_.StartObject();
        name(walk.scheduler().schedulerName());
        writer_.EndObject();
        writer_.EndObject();
      } else {
        const bool completed = at == StatsWalk::At::completed;
        const auto& task = completed ? walk.completed().taskNameRef() : walk.task().taskNameRef();
        taskTracks_.insert({task.elem(), track});
      }
    }
  }

  /// Finds members of groups that no longer exist: a task that ran inside a group's run was a
  /// member of it.
  void learnMembers() {
    std::vector<const ConstStringRef::Elem*> running;
    const auto& events = root_.history().events();
    for (auto event = events.rbegin(); event != events.rend(); ++event) {
      const ConstStringRef::Elem* who = event->name.elem();
      if (event->eventType == Type::runStart) {
        const auto group =
            running.empty() ? schedulerTracks_.end() : schedulerTracks_.find(running.back());
        if (group != schedulerTracks_.end()) taskTracks_.insert({who, group->second});
        running.push_back(who);
      } else if (event->eventType == Type::runEnd) {
        const auto run = std::find(running.rbegin(), running.rend(), who);
        if (run != running.rend()) running.erase(std::next(run).base(), running.end());
      }
    }
  }

  void take(const Event& event) {
    const ConstStringRef::Elem* who = event.name.elem();
    switch (event.eventType) {
      case Type::schedule:
        return open(waits_, "wait", event);
      case Type::unschedule:
        return close(waits_, "wait", event);
      case Type::runStart:
        close(waits_, "wait", event);
        // Runs nest: the members of a group run inside its parent task's run.
        runs_.push_back({who, event.time, trackOf(event)});
        return;
      case Type::runEnd:
        return endRun(event);
      case Type::schedulerIdle:
        return open(idles_, "idle", event);
      case Type::schedulerRunnable:
        return close(idles_, "idle", event);
      case Type::suspendOn:
      case Type::schedulerSuspended:
        return open(suspensions_, "suspended", event);
      case Type::suspendOff:
      case Type::schedulerUnsuspended:
        return close(suspensions_, "suspended", event);
      default:
        begin("i", event.eventTypeDisplay() + " " + event.name.text(), &event.time, trackOf(event));
        writer_.Key("s");
        writer_.String("t");
        writer_.EndObject();
    }
  }

  void endRun(const Event& event) {
    const auto same = [&](const Run& run) { return run.who == event.name.elem(); };
    const auto run = std::find_if(runs_.rbegin(), runs_.rend(), same);
    if (run == runs_.rend()) return;  // it began before the oldest event
    complete("run", event.name.text(), run->start, event.time, run->track, event.threw);
    runs_.erase(std::next(run).base(), runs_.end());
  }

  /// Runs without an end in the history last until `now`.
  void closeRuns(TimePoint now) {
    for (const Run& run : runs_) complete("run", run.who->text(), run.start, now, run.track);
  }

  void open(Open& all, const char* category, const Event& event) {
    all[event.name.elem()].push_back(++lastId_);
    asynchronous("b", category, event, lastId_);
  }
  /// Ends the first open interval of that name: the history knows tasks by name only.
  void close(Open& all, const char* category, const Event& event) {
    const auto found = all.find(event.name.elem());
    if (found == all.end() || found->second.empty()) return;
    asynchronous("e", category, event, found->second.front());
    found->second.pop_front();
  }

  void complete(const char* category, const String& what, TimePoint from, TimePoint to, int track,
                bool threw = false) {
    begin("X", what, &from, track);
    writer_.Key("cat");
    writer_.String(category);
    writer_.Key("dur");
    microseconds(to - from);
    if (threw) {
      writer_.Key("args");
      writer_.StartObject();
      writer_.Key("threw");
      writer_.Bool(true);
      writer_.EndObject();
    }
    writer_.EndObject();
  }

  void asynchronous(const char* phase, const char* category, const Event& event, int id) {
    begin(phase, event.name.text(), &event.time, trackOf(event));
    writer_.Key("cat");
    writer_.String(category);
    writer_.Key("id");
    writer_.Int(id);
    writer_.EndObject();
  }

  /// Writes the members that all events have; the caller adds others and closes the object.
  void begin(const char* phase, const String& what, const TimePoint* time, int track) {
    writer_.StartObject();
    writer_.Key("ph");
    writer_.String(phase);
    name(what);
    writer_.Key("pid");
    writer_.Int(getpid());
    writer_.Key("tid");
    writer_.Int(track);
    if (time == nullptr) return;
    writer_.Key("ts");
    microseconds(*time - oldest_);
  }

  void name(const String& text) {
    const String valid = Impl::validUtf8(text);
    writer_.Key("name");
    writer_.String(valid.data(), static_cast<rapidjson::SizeType>(valid.size()));
  }

  /// The track of a scheduler, or of a task's scheduler; the root's track for those that no longer
  /// exist. (A group and its parent task have the same name. When several schedulers have tasks of
  /// one name, the running task is taken to be in the running group.)
  int trackOf(const Event& event) const {
    const bool ofTask = event.eventType < Type::schedulerIdle;
    if (ofTask && !runs_.empty()) {
      const auto group = schedulerTracks_.find(runs_.back().who);
      if (group != schedulerTracks_.end() &&
          taskTracks_.contains({event.name.elem(), group->second})) {
        return group->second;
      }
    }
    if (!ofTask) {
      const auto track = schedulerTracks_.find(event.name.elem());
      return track == schedulerTracks_.end() ? 1 : track->second;
    }
    const auto track = taskTracks_.lower_bound({event.name.elem(), 0});
    return track == taskTracks_.end() || track->first != event.name.elem() ? 1 : track->second;
  }

  /// Microseconds with three decimals: rounded times would make adjacent runs overlap.
  void microseconds(TaskClock::duration duration) {
    const auto count = nanoseconds(duration);
    const String exact = fmt::format("{}{}.{:03}", count < 0 ? "-" : "", std::abs(count / 1000),
                                     std::abs(count % 1000));
    writer_.RawValue(exact.data(), exact.size(), rapidjson::kNumberType);
  }

  const TaskSchedulerRoot& root_;
  TimePoint oldest_;  // times are relative to this: readers parse them as doubles
  Impl::JsonBuffer buffer_;
  Impl::JsonWriter writer_{buffer_};
  std::map<const ConstStringRef::Elem*, int> schedulerTracks_;
  std::set<std::pair<const ConstStringRef::Elem*, int>>
      taskTracks_;         // (task, its scheduler's track)
  std::vector<Run> runs_;  // open runs, the outermost first
  Open waits_, idles_, suspensions_;
  int lastId_ = 0;
};

}  // namespace

String TaskSchedulerRoot::timelineRenderJson() const {
  sanityCheckCurrentRunningThread();
  return Timeline(*this).text();
}

}  // namespace Tarvo
