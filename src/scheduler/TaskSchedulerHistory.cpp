#include "Tarvo/TaskSchedulerHistory.h"

#include <algorithm>
#include <array>
#include <ostream>
#include <stdexcept>

#include "Tarvo/Assert.h"
#include "Tarvo/Task.h"
#include "Tarvo/TaskScheduler.h"

namespace Tarvo {

namespace {

constexpr std::array<const char*, 24> displayNames = {
    "schedule",
    "unschedule",
    "run start",
    "run end",
    "timerStart",
    "timerStop",
    "suspendOn",
    "suspendOff",
    "scheduleSus",
    "frcYieldOn",
    "frcYieldOff",
    "idle",
    "busy",
    "create",
    "delete",
    "schedulerIdle",
    "schedulerRunnable",
    "schedulerSuspended",
    "schedulerUnsuspended",
    "schedulerRunIgnoredWhileSuspended",
    "schedulerVirtualTimeOn",
    "schedulerVirtualTimeOff",
    "schedulerTestYieldRatioOn",
    "schedulerTestYieldRatioOff",
};

unsigned number(TaskSchedulerEventType type) { return static_cast<unsigned>(type); }

bool isTaskEvent(TaskSchedulerEventType type) { return type <= TaskSchedulerEventType::delete_; }

unsigned int checkedCapacity(unsigned int capacity) {
  if (capacity > TaskSchedulerHistory::capacityMax) throw std::length_error("circular_buffer");
  return capacity;
}

}  // namespace

String TaskSchedulerHistory::Event::eventTypeDisplay() const {
  TARVO_ASSERT(number(eventType) < displayNames.size(), "unexpected eventType {}",
               number(eventType));
  return displayNames[number(eventType)];
}

String TaskSchedulerHistory::Event::display() const {
  return fmt::format("{:<12} {}", eventTypeDisplay(), name.text());
}

TaskSchedulerHistory::TaskSchedulerHistory(unsigned int capacity)
    : events_(checkedCapacity(capacity)) {}

void TaskSchedulerHistory::put(TaskClock::time_point now, TaskSchedulerEventType type,
                               const ConstStringRef& name) {
  if (!events_.full()) {
    events_.push_front({type, now, name});
  } else if (!events_.empty()) {
    // Rotating a full ring turns the oldest entry into the newest in constant time. Assigning its
    // members instead of pushing a new Event saves a copy in every recorded event.
    events_.rotate(events_.end() - 1);
    Event& event = events_.front();
    event.eventType = type;
    event.threw = false;
    event.time = now;
    event.name = name;
  }
}

void TaskSchedulerHistory::insert(const TaskClock::time_point& now, TaskSchedulerEventType type,
                                  const _TaskBase* task) {
  TARVO_ASSERT(number(type) < displayNames.size(), "unexpected eventType={}", number(type));
  TARVO_ASSERT(isTaskEvent(type), "EventType: {}", number(type));
  put(now, type, task->taskNameRef());
}

void TaskSchedulerHistory::insert(const TaskClock::time_point& now, TaskSchedulerEventType type,
                                  const TaskScheduler* scheduler) {
  TARVO_ASSERT(number(type) < displayNames.size(), "unexpected eventType={}", number(type));
  TARVO_ASSERT(!isTaskEvent(type), "EventType: {}", number(type));
  put(now, type, scheduler->schedulerNameRef());
}

void TaskSchedulerHistory::newestThrew() {
  if (!events_.empty()) events_.front().threw = true;
}

void TaskSchedulerHistory::capacityIs(unsigned int capacity) {
  if (capacity == this->capacity()) return;
  const auto kept = std::min<std::size_t>(events_.size(), checkedCapacity(capacity));
  Events resized(capacity);
  for (auto event = events_.begin(); resized.size() < kept; ++event) resized.push_back(*event);
  events_.swap(resized);
}

void TaskSchedulerHistory::renderText(std::ostream& out) const {
  const Events events = events_;  // a copy: the caller's stream may run code that records events
  const auto header = fmt::format(
      "Last {} scheduler events, absolute timestamp and relative to last event", capacity());
  const auto write = [&](const String& line) {
    out.write(line.data(), static_cast<std::streamsize>(line.size())).put('\n').flush();
  };
  write(header);
  write(String(header.size(), '-'));
  for (const Event& event : events) {
    write(fmt::format("{:>22} ns since boot {:>10} \u00b5s {}{}",
                      nanoseconds(event.time.time_since_epoch()),
                      nanoseconds(events.front().time - event.time) / 1000, event.display(),
                      event.threw ? " threw" : ""));
  }
  write("");
}

}  // namespace Tarvo
