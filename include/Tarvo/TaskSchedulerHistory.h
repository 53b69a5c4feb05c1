#ifndef TARVO_TASKSCHEDULERHISTORY_H
#define TARVO_TASKSCHEDULERHISTORY_H

/// The last things that happened to the tasks and schedulers of one root: a ring of events that is
/// always on, to be read after the fact. Recording one costs constant time and allocates nothing.
///
/// Used on the thread of its root.

#include <boost/circular_buffer.hpp>

#include <cstdint>
#include <iosfwd>
#include <utility>

#include "Tarvo/ConstString.h"
#include "Tarvo/Export.h"
#include "Tarvo/String.h"
#include "Tarvo/TaskTime.h"

namespace Tarvo {

class TaskScheduler;
class _TaskBase;

/// Those up to delete_ happen to a task, the others to a scheduler.
enum class TaskSchedulerEventType : std::uint8_t {
  schedule = 0,
  unschedule,
  runStart,
  runEnd,
  timerStart,
  timerStop,
  suspendOn,
  suspendOff,
  scheduleSus,  // scheduled while suspended: nothing was queued
  frcYieldOn,
  frcYieldOff,
  idle,
  busy,
  create,
  delete_,
  schedulerIdle,
  schedulerRunnable,
  schedulerSuspended,
  schedulerUnsuspended,
  schedulerRunIgnoredWhileSuspended,
  schedulerVirtualTimeOn,
  schedulerVirtualTimeOff,
  schedulerTestYieldRatioOn,
  schedulerTestYieldRatioOff,
};

class TARVO_EXPORT TaskSchedulerHistory {
 public:
  struct TARVO_EXPORT Event {
    Event() = default;
    Event(TaskSchedulerEventType type, TaskClock::time_point when, ConstStringRef who)
        : eventType(type), time(when), name(std::move(who)) {}

    TaskSchedulerEventType eventType = TaskSchedulerEventType::schedule;
    bool threw = false;  // the end of a run: by an exception
    TaskClock::time_point time;
    ConstStringRef name;  // outlives the task or scheduler

    String eventTypeDisplay() const;
    /// The type, filled up to 12 characters, a blank and the name.
    String display() const;
  };
  using Events = boost::circular_buffer<Event>;

  /// A capacity above this throws std::length_error.
  static constexpr unsigned int capacityMax = 0xfffffff;

  explicit TaskSchedulerHistory(unsigned int capacity);
  TaskSchedulerHistory(const TaskSchedulerHistory&) = delete;
  TaskSchedulerHistory& operator=(const TaskSchedulerHistory&) = delete;

  /// Records that `type` happened to a task, or to a scheduler, at `now`; the oldest event makes
  /// room. Fails an assertion when the type is not one of that kind.
  void insert(const TaskClock::time_point& now, TaskSchedulerEventType type, const _TaskBase* task);
  void insert(const TaskClock::time_point& now, TaskSchedulerEventType type,
              const TaskScheduler* scheduler);

  /// Marks the newest event, the end of a run, as one by an exception.
  void newestThrew();

  /// The newest first.
  const Events& events() const { return events_; }
  unsigned int capacity() const { return static_cast<unsigned int>(events_.capacity()); }
  /// Keeps the newest events that fit.
  void capacityIs(unsigned int capacity);
  void clear() noexcept { events_.clear(); }

  /// A header that tells the capacity, then a line per event: its time, how long before the newest
  /// one it was, what happened, and to whom; "threw" after the end of a run that threw.
  void renderText(std::ostream& out) const;

  /// Where the names of the root's tasks and schedulers are interned.
  ConstStringCache& cache() { return cache_; }

 private:
  void put(TaskClock::time_point now, TaskSchedulerEventType type, const ConstStringRef& name);

  ConstStringCache cache_;
  Events events_;
};

}  // namespace Tarvo

#endif
