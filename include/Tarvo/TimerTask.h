#ifndef TARVO_TIMERTASK_H
#define TARVO_TIMERTASK_H

/// A task that becomes runnable after a delay.
///
/// States, in addition to those of every task: idle; pending (its timer runs on the root's timer
/// wheel); runnable (on its run queue, the timer stopped).
/// 1. scheduleTaskDelay() makes the task pending, whatever it was before.
/// 2. When the delay is over the task becomes runnable and runs at its turn, like any other.
/// 3. scheduleTask(), and a delay of zero, make it runnable at once.
/// 4. stopTimerTask(), and a delay that never ends, make it idle.
///
/// Delays are a double in seconds, an integer in nanoseconds or a std::chrono duration. A delay
/// never ends when it is infinity or taskTimeNever; a negative one is over at once; NaN fails an
/// assertion. Delays pass on the library clock, so in virtual time they take no time at all.
///
///     struct Sweep : Tarvo::TimerTask {
///       using TimerTask::TimerTask;
///       void taskExecute() override {
///         dropWhatIsTooOld();
///         scheduleTaskJitterUp(10.0, 20);  // again in 10 to 12 seconds
///       }
///     };

#include <chrono>
#include <concepts>
#include <limits>
#include <memory>
#include <utility>

#include "Tarvo/Export.h"
#include "Tarvo/Task.h"
#include "Tarvo/TaskTime.h"
#include "Tarvo/TimerWheel.h"

namespace Tarvo {

namespace Impl {

/// Converts other delay types: integers and integral durations become nanoseconds, floating-point
/// ones seconds. Too large means never, too small means now.
template <std::integral Number>
requires(!std::same_as<Number, bool> && !std::same_as<Number, char>) TaskTimeDuration
    taskDelay(Number delay) {
  return std::in_range<TaskTimeDuration>(delay) ? static_cast<TaskTimeDuration>(delay)
                                                : taskTimeNever;
}
double taskDelay(std::same_as<long double> auto delay) { return static_cast<double>(delay); }
template <std::floating_point Count, typename Period>
double taskDelay(std::chrono::duration<Count, Period> delay) {
  return std::chrono::duration<double>(delay).count();
}
template <std::integral Count, typename Period>
TaskTimeDuration taskDelay(std::chrono::duration<Count, Period> delay) {
  using std::chrono::nanoseconds;
  // As doubles, which are rough at the ends of the range but do not overflow.
  const double rough = taskDelay(std::chrono::duration<double>(delay)) * 1e9;
  if (rough >= 9.2e18) return taskTimeNever;
  if (rough <= -9.2e18) return nanoseconds::min().count();
  return std::chrono::duration_cast<nanoseconds>(delay).count();
}

template <typename Delay>
concept OtherTaskDelay = !std::same_as<Delay, TaskTimeDuration> && requires(Delay delay) {
  taskDelay(delay);
};

}  // namespace Impl

class TARVO_EXPORT TimerTask : public TaskImpl, private TimerWheelEvent {
 public:
  TimerTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, String name);
  /// Shares the scheduler; throws std::bad_weak_ptr when nobody does.
  TimerTask(TaskScheduler* scheduler, TaskPriority priority, String name);
  ~TimerTask() override;

  /// Whether the task is runnable or pending.
  bool taskScheduled() const override;
  /// Makes the task runnable now.
  void scheduleTask() override;
  void taskRunFromTest() override;
  TaskStat::TaskStatus taskStatus() const override;

  void scheduleTaskDelay(TaskTimeDuration delay);
  void scheduleTaskDelay(double delay);
  /// Schedules after the delay plus (Up) or minus (Down) a random share of it, from 0 to
  /// `maxJitterPercentage` percent. Each root draws from a sequence of its own; all start with the
  /// same seed. Fails an assertion when the percentage is above 100, or when a share is to be
  /// subtracted from a negative delay.
  void scheduleTaskJitterUp(TaskTimeDuration delay, unsigned char maxJitterPercentage);
  void scheduleTaskJitterUp(double delay, unsigned char maxJitterPercentage);
  void scheduleTaskJitterDown(TaskTimeDuration delay, unsigned char maxJitterPercentage);
  void scheduleTaskJitterDown(double delay, unsigned char maxJitterPercentage);
  /// Schedules after the delay, unless the task is runnable or its timer expires no later. Fails an
  /// assertion when the delay never ends.
  void scheduleTaskLowestDelay(TaskTimeDuration delay);
  void scheduleTaskLowestDelay(double delay);

  template <Impl::OtherTaskDelay Delay>
  void scheduleTaskDelay(Delay delay) {
    scheduleTaskDelay(Impl::taskDelay(delay));
  }
  template <Impl::OtherTaskDelay Delay>
  void scheduleTaskJitterUp(Delay delay, unsigned char maxJitterPercentage) {
    scheduleTaskJitterUp(Impl::taskDelay(delay), maxJitterPercentage);
  }
  template <Impl::OtherTaskDelay Delay>
  void scheduleTaskJitterDown(Delay delay, unsigned char maxJitterPercentage) {
    scheduleTaskJitterDown(Impl::taskDelay(delay), maxJitterPercentage);
  }
  template <Impl::OtherTaskDelay Delay>
  void scheduleTaskLowestDelay(Delay delay) {
    scheduleTaskLowestDelay(Impl::taskDelay(delay));
  }

  /// Stops the timer and takes the task off its run queue.
  void stopTimerTask();

  /// When the task becomes runnable, on the library clock: now when it is, infinity when it is
  /// idle.
  Time currentExpirationTime() const;
  /// Seconds until the timer expires: 0.0 when it is overdue, infinity when it is not running.
  double timerRemaining() const;
  bool timerRunning() const { return expirationTime() != std::numeric_limits<Time>::infinity(); }

  /// Draws the next jitter of a delay, in its unit.
  TaskTimeDuration jitterOffset(TaskTimeDuration delay, unsigned char maxJitterPercentage) const;
  double jitterOffset(double delay, unsigned char maxJitterPercentage) const;

  /// Start and stop the timer without history events. doStartTimer() returns false, and changes
  /// nothing, when `restart` is false and the timer expires no later than asked.
  bool doStartTimer(double delaySeconds, bool restart);
  void doStopTimer();

  /// Called by the wheel: makes the task runnable.
  void timeout() override;

 private:
  template <typename Delay>
  void _scheduleTaskJitterUp(Delay delay, unsigned char maxJitterPercentage);
  template <typename Delay>
  void _scheduleTaskJitterDown(Delay delay, unsigned char maxJitterPercentage);
  template <typename Delay>
  void scheduleTaskDelayedPrivate(Delay delay, bool restart);
  int jitterPercent(unsigned char maxJitterPercentage) const;
  bool startTimer(double delaySeconds, bool restart, Time now);
  void becomeRunnable();
  void fetch() const;
};

}  // namespace Tarvo

#endif
