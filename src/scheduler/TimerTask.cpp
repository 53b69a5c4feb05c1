#include "Tarvo/TimerTask.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "Tarvo/TaskScheduler.h"
#include "Tarvo/TaskSchedulerHistory.h"
#include "platform/LibraryTime.h"
#include "scheduler/SchedulerTrace.h"

namespace Tarvo {

using Impl::taskSchedulerTrace;

namespace {

constexpr bool isNever(TaskTimeDuration delay) { return delay == taskTimeNever; }
constexpr bool isNever(double delay) { return delay == std::numeric_limits<double>::infinity(); }

constexpr double seconds(TaskTimeDuration delay) { return static_cast<double>(delay) / 1e9; }
constexpr double seconds(double delay) { return delay; }

// Sums of finite delays stay finite.
TaskTimeDuration sum(TaskTimeDuration delay, TaskTimeDuration offset) {
  TaskTimeDuration result = 0;
  const bool overflow = __builtin_add_overflow(delay, offset, &result);
  return overflow || isNever(result) ? taskTimeNever - 1 : result;
}
double sum(double delay, double offset) {
  const double result = delay + offset;
  return isNever(result) ? std::numeric_limits<double>::max() : result;
}

}  // namespace

TimerTask::TimerTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, String name)
    : TaskImpl(std::move(scheduler), priority, name) {}

TimerTask::TimerTask(TaskScheduler* scheduler, TaskPriority priority, String name)
    : TimerTask(scheduler == nullptr ? nullptr : scheduler->shared_from_this(), priority,
                std::move(name)) {}

TimerTask::~TimerTask() {
  TimerTask::stopTimerTask();
  handleDestroy();
}

bool TimerTask::taskScheduled() const {
  taskScheduler()->sanityCheckCurrentRunningThread();
  return taskOnRunQueue() || timerRunning();
}

void TimerTask::scheduleTask() {
  if (timerRunning()) {
    taskScheduler()->sanityCheckCurrentRunningThread();
    doStopTimer();
  }
  becomeRunnable();
}

void TimerTask::timeout() {
  doStopTimer();  // it runs only when the caller is not the wheel
  becomeRunnable();
}

void TimerTask::becomeRunnable() {
  const bool suspended = taskSuspended();
  TaskImpl::scheduleTask();  // its hook may destroy the task, but is not called when suspended
  // A suspended task was not queued and its timer is stopped: it is idle.
  if (suspended) taskBusyIs(taskScheduled(), TaskClock::now());
}

void TimerTask::taskRunFromTest() {
  taskScheduler()->sanityCheckCurrentRunningThread();
  doStopTimer();
  TaskImpl::taskRunFromTest();
}

TaskStat::TaskStatus TimerTask::taskStatus() const {
  TaskStat::TaskStatus status = TaskImpl::taskStatus();
  status.taskTimerIs(true);
  status.taskTimerRunningIs(timerRunning());
  return status;
}

/// One task of many is seldom in the cache. Its lines come together, and while the clock is read.
inline void TimerTask::fetch() const {
  __builtin_prefetch(this);
  __builtin_prefetch(&taskBusy_, 1);
  __builtin_prefetch(reinterpret_cast<const char*>(this + 1) - 1, 1);
}

void TimerTask::scheduleTaskDelay(TaskTimeDuration delay) {
  fetch();
  taskScheduler()->sanityCheckCurrentRunningThread();
  if (isNever(delay)) return stopTimerTask();
  scheduleTaskDelayedPrivate(delay, true);
}

void TimerTask::scheduleTaskDelay(double delay) {
  fetch();
  taskScheduler()->sanityCheckCurrentRunningThread();
  if (isNever(delay)) return stopTimerTask();
  scheduleTaskDelayedPrivate(delay, true);
}

void TimerTask::scheduleTaskJitterUp(TaskTimeDuration delay, unsigned char maxJitterPercentage) {
  _scheduleTaskJitterUp(delay, maxJitterPercentage);
}
void TimerTask::scheduleTaskJitterUp(double delay, unsigned char maxJitterPercentage) {
  _scheduleTaskJitterUp(delay, maxJitterPercentage);
}
void TimerTask::scheduleTaskJitterDown(TaskTimeDuration delay, unsigned char maxJitterPercentage) {
  _scheduleTaskJitterDown(delay, maxJitterPercentage);
}
void TimerTask::scheduleTaskJitterDown(double delay, unsigned char maxJitterPercentage) {
  _scheduleTaskJitterDown(delay, maxJitterPercentage);
}

template <typename Delay>
void TimerTask::_scheduleTaskJitterUp(Delay delay, unsigned char maxJitterPercentage) {
  taskScheduler()->sanityCheckCurrentRunningThread();
  if (isNever(delay)) return stopTimerTask();
  const Delay offset = jitterOffset(delay, maxJitterPercentage);
  const Delay result = sum(delay, offset);
  TARVO_TRACE(taskSchedulerTrace, 9, "Timer jitterUp {} delay {} + {} = {}", *this, delay, offset,
              result);
  scheduleTaskDelayedPrivate(result, true);
}

template <typename Delay>
void TimerTask::_scheduleTaskJitterDown(Delay delay, unsigned char maxJitterPercentage) {
  taskScheduler()->sanityCheckCurrentRunningThread();
  if (isNever(delay)) return stopTimerTask();
  const Delay offset = jitterOffset(delay, maxJitterPercentage);
  const Delay result = delay - offset;  // nearer to zero, as the offset is checked
  TARVO_TRACE(taskSchedulerTrace, 9, "Timer jitterDown {} delay {} - {} = {}", *this, delay, offset,
              result);
  scheduleTaskDelayedPrivate(result, true);
}

int TimerTask::jitterPercent(unsigned char maxJitterPercentage) const {
  TARVO_ASSERT(maxJitterPercentage <= 100, "maxJitterPercentage: {} > 100",
               static_cast<char>(maxJitterPercentage));
  return rand_r(&taskScheduler()->root()->jitterState()) / 21474836;
}

TaskTimeDuration TimerTask::jitterOffset(TaskTimeDuration delay,
                                         unsigned char maxJitterPercentage) const {
  const int percent = jitterPercent(maxJitterPercentage);
  // The product may need more than 64 bits, the quotient never does.
  __extension__ using Wide = __int128;
  const auto offset =
      static_cast<TaskTimeDuration>(Wide{delay} * maxJitterPercentage * percent / 10000);
  TARVO_ASSERT(!(delay < offset), "offset( {} ) > delayIntoFuture( {} )", offset, delay);
  return offset;
}

double TimerTask::jitterOffset(double delay, unsigned char maxJitterPercentage) const {
  const int percent = jitterPercent(maxJitterPercentage);
  double offset = static_cast<double>(maxJitterPercentage) * delay * percent / 10000.0;
  // The product of a huge delay may overflow where the offset does not.
  if (!std::isfinite(offset)) offset = delay / 10000.0 * maxJitterPercentage * percent;
  TARVO_ASSERT(!(delay < offset), "offset( {} ) > delayIntoFuture( {} )", offset, delay);
  return offset;
}

void TimerTask::scheduleTaskLowestDelay(TaskTimeDuration delay) {
  taskScheduler()->sanityCheckCurrentRunningThread();
  TARVO_ASSERT(!isNever(delay), "delayIntoFuture: {}", delay);
  scheduleTaskDelayedPrivate(delay, false);
}

void TimerTask::scheduleTaskLowestDelay(double delay) {
  taskScheduler()->sanityCheckCurrentRunningThread();
  TARVO_ASSERT(!isNever(delay), "delayIntoFuture: {}", delay);
  scheduleTaskDelayedPrivate(delay, false);
}

template <typename Delay>
void TimerTask::scheduleTaskDelayedPrivate(Delay delay, bool restart) {
  const double delaySeconds = seconds(delay);
  TARVO_ASSERT(!std::isnan(delaySeconds), "{}: a delay of NaN seconds", *this);
  if (delay == 0) return scheduleTask();
  __builtin_prefetch(taskEventName_.elem(), 1);
  // One reading serves the history and the timer. It is taken here: the delay counts from this
  // call, and the last reading of a run that is under way is older by what the body has done since.
  // From that the timer would expire too early.
  const auto now = TaskClock::now();
  if (!restart && taskOnRunQueue()) {
    TARVO_TRACE(taskSchedulerTrace, 8, "Already on runQueue {}", *this);
    return;
  }
  if (startTimer(delaySeconds, restart, Impl::libraryTime(now))) {
    unscheduleTaskPrivate(now);  // now that the start cannot fail, which would lose the run
    TARVO_TRACE(taskSchedulerTrace, 8, "Timer started {} delay {}", *this, delaySeconds);
    recordEvent(now, TaskSchedulerEventType::timerStart);
    taskBusyIs(taskScheduled(), now);
  } else {
    TARVO_TRACE(taskSchedulerTrace, 8, "Timer already running {} expire {}", *this,
                currentExpirationTime());
    TARVO_ASSERT(timerRunning(), "Task: {}", *this);
  }
}

bool TimerTask::doStartTimer(double delaySeconds, bool restart) {
  TARVO_ASSERT(!std::isnan(delaySeconds), "{}: a delay of NaN seconds", *this);
  return startTimer(delaySeconds, restart, time());
}

bool TimerTask::startTimer(double delaySeconds, bool restart, Time now) {
  if (!restart && delaySeconds >= std::max(0.0, expirationTime() - now)) return false;
  taskScheduler()->root()->timerWheel()->timerStartFrom(this, now, delaySeconds);
  return timerRunning();
}

void TimerTask::doStopTimer() {
  if (timerRunning()) delTimeout(taskScheduler()->root()->timerWheel());
}

void TimerTask::stopTimerTask() {
  taskScheduler()->sanityCheckCurrentRunningThread();
  const auto now = TaskClock::now();
  if (timerRunning()) {
    TARVO_TRACE(taskSchedulerTrace, 9, "Timer stopped {}, was running", *this);
    recordEvent(now, TaskSchedulerEventType::timerStop);
    doStopTimer();
  } else {
    TARVO_TRACE(taskSchedulerTrace, 9, "Timer stopped {}, was not running", *this);
  }
  unscheduleTaskPrivate(now);
  taskBusyIs(taskScheduled(), now);
}

Time TimerTask::currentExpirationTime() const {
  taskScheduler()->sanityCheckCurrentRunningThread();
  if (taskOnRunQueue()) return time();
  return expirationTime();
}

double TimerTask::timerRemaining() const { return remainingTimeout(); }

}  // namespace Tarvo
