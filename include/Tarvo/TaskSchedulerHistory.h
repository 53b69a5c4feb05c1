#ifndef TARVO_TASKSCHEDULERHISTORY_H
#define TARVO_TASKSCHEDULERHISTORY_H

/// The last events of the tasks and schedulers of one root, in a ring buffer that is always on, for
/// reading after the fact. Recording an event takes constant time and allocates nothing.
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

/// The types up to delete_ are events of a task, the others of a scheduler.
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
    bool threw = false;  // for runEnd: the run ended by an exception
    TaskClock::time_point time;
    ConstStringRef name;  // stays valid after the task or scheduler is destroyed

    String eventTypeDisplay() const;
    /// The type, padded to 12 characters, a blank and the name.
    String display() const;
  };
  using Events = boost::circular_buffer<Event>;

  /// A capacity above this throws std::length_error.
  static constexpr unsigned int capacityMax = 0xfffffff;

  explicit TaskSchedulerHistory(unsigned int capacity);
  TaskSchedulerHistory(const TaskSchedulerHistory&) = delete;
  TaskSchedulerHistory& operator=(const TaskSchedulerHistory&) = delete;

  /// Records an event of a task, or of a scheduler. When the ring is full it replaces the oldest
  /// event. Fails an assertion when the type is not of that kind.
  void insert(const TaskClock::time_point& now, TaskSchedulerEventType type, const _TaskBase* task);
  void insert(const TaskClock::time_point& now, TaskSchedulerEventType type,
              const TaskScheduler* scheduler);

  /// Marks the newest event, a runEnd, as caused by an exception.
  void newestThrew();

  /// The newest first.
  const Events& events() const { return events_; }
  unsigned int capacity() const { return static_cast<unsigned int>(events_.capacity()); }
  /// Changes the capacity; the newest events stay.
  void capacityIs(unsigned int capacity);
  void clear() noexcept { events_.clear(); }

  /// Writes a header with the capacity, then one line per event: its time, the time from it to the
  /// newest event, its type and its name, and "threw" for a run that threw.
  void renderText(std::ostream& out) const;

  /// Where the names of the root's tasks and schedulers are interned.
  ConstStringCache& cache() { return cache_; }

 private:
  friend class TaskImpl;

  void put(TaskClock::time_point now, TaskSchedulerEventType type, const ConstStringRef& name);

  ConstStringCache cache_;
  Events events_;
};

}  // namespace Tarvo

#endif
