#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <unistd.h>

#include <map>
#include <optional>

#include "scheduler/StatsWalk.h"
#include "scheduler/Utf8.h"

namespace Tarvo {

namespace {

using Type = TaskSchedulerEventType;
using Event = TaskSchedulerHistory::Event;
using TimePoint = TaskClock::time_point;

/// The history in the trace event format of Chrome: complete events for runs and idleness, which
/// nest, asynchronous ones for waits and suspensions, which overlap, instants for the rest.
class Timeline {
 public:
  explicit Timeline(const TaskSchedulerRoot& root) : root_(root) {
    writer_.StartObject();
    writer_.Key("displayTimeUnit");
    writer_.String("ns");
    writer_.Key("traceEvents");
    writer_.StartArray();
    nameTracks();
    const auto& events = root.history().events();
    for (auto event = events.rbegin(); event != events.rend(); ++event) take(*event);
    if (!events.empty()) closeRuns(events.front().time);
    writer_.EndArray();
    writer_.EndObject();
  }
  String text() const { return {buffer_.GetString(), buffer_.GetSize()}; }

 private:
  using Starts = std::map<const ConstStringRef::Elem*, TimePoint>;

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
        taskTracks_.emplace(task.elem(), track);
      }
    }
  }

  void take(const Event& event) {
    const ConstStringRef& who = event.name;
    switch (event.eventType) {
      case Type::schedule:
        asynchronous("b", "wait", event);
        waits_[who.elem()] = event.time;
        return;
      case Type::unschedule:
        endWait(event);
        return;
      case Type::runStart:
        endWait(event);
        runs_[who.elem()] = event.time;
        return;
      case Type::runEnd:
        return span("run", runs_, event);
      case Type::schedulerIdle:
        idles_[who.elem()] = event.time;
        return;
      case Type::schedulerRunnable:
        return span("idle", idles_, event);
      case Type::suspendOn:
      case Type::schedulerSuspended:
        suspensions_[who.elem()] = event.time;
        return asynchronous("b", "suspended", event);
      case Type::suspendOff:
      case Type::schedulerUnsuspended:
        if (suspensions_.erase(who.elem()) != 0) asynchronous("e", "suspended", event);
        return;
      default:
        begin("i", event.eventTypeDisplay() + " " + who.text(), &event.time, trackOf(event));
        writer_.Key("s");
        writer_.String("t");
        writer_.EndObject();
    }
  }

  void endWait(const Event& event) {
    if (waits_.erase(event.name.elem()) != 0) asynchronous("e", "wait", event);
  }

  void span(const char* category, Starts& starts, const Event& end) {
    const auto start = starts.find(end.name.elem());
    if (start == starts.end()) return;  // it stood before the oldest event
    complete(category, &starts == &idles_ ? "idle" : end.name.text(), start->second, end.time,
             trackOf(end));
    starts.erase(start);
  }

  /// Runs that have not ended lasted until now.
  void closeRuns(TimePoint now) {
    for (const auto& [elem, start] : runs_) {
      complete("run", elem->text(), start, now, trackOf(Type::runEnd, elem));
    }
  }

  void complete(const char* category, const String& what, TimePoint from, TimePoint to, int track) {
    begin("X", what, &from, track);
    writer_.Key("cat");
    writer_.String(category);
    writer_.Key("dur");
    writer_.Double(microseconds(to - from));
    writer_.EndObject();
  }

  void asynchronous(const char* phase, const char* category, const Event& event) {
    begin(phase, event.name.text(), &event.time, trackOf(event));
    writer_.Key("cat");
    writer_.String(category);
    writer_.Key("id");
    const void* id = event.name.elem();
    writer_.String(fmt::format("{}", id).c_str());
    writer_.EndObject();
  }

  /// Opens an event with what all have.
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
    writer_.Double(microseconds(time->time_since_epoch()));
  }

  void name(const String& text) {
    const String valid = Impl::validUtf8(text);
    writer_.Key("name");
    writer_.String(valid.data(), static_cast<rapidjson::SizeType>(valid.size()));
  }

  /// The track of a scheduler, or of a task's; those that are gone are on the root's. (A group and
  /// its parent task share one name.)
  int trackOf(Type type, const ConstStringRef::Elem* who) const {
    const auto& tracks = type >= Type::schedulerIdle ? schedulerTracks_ : taskTracks_;
    const auto track = tracks.find(who);
    return track == tracks.end() ? 1 : track->second;
  }
  int trackOf(const Event& event) const { return trackOf(event.eventType, event.name.elem()); }

  static double microseconds(TaskClock::duration duration) {
    return static_cast<double>(nanoseconds(duration)) / 1000.0;
  }

  const TaskSchedulerRoot& root_;
  rapidjson::StringBuffer buffer_;
  rapidjson::Writer<rapidjson::StringBuffer> writer_{buffer_};
  using Tracks = std::map<const ConstStringRef::Elem*, int>;
  Tracks taskTracks_, schedulerTracks_;
  Starts waits_, runs_, idles_, suspensions_;
};

}  // namespace

String TaskSchedulerRoot::timelineRenderJson() const {
  sanityCheckCurrentRunningThread();
  return Timeline(*this).text();
}

}  // namespace Tarvo
