#ifndef TARVO_TASKSCHEDULERROOT_H
#define TARVO_TASKSCHEDULERROOT_H

/// The scheduler that runs on a thread's event loop. Tarvo/TaskScheduler.h says what runs when.

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <set>

#include <sys/types.h>

#include "Tarvo/Export.h"
#include "Tarvo/Locking.h"
#include "Tarvo/Platform.h"
#include "Tarvo/String.h"
#include "Tarvo/TaskSchedulerCore.h"
#include "Tarvo/TimerWheel.h"

namespace Tarvo {

class FileDescriptorTask;

namespace Impl {
class SchedulerCallback;
}

class TARVO_EXPORT TaskSchedulerRoot : public TaskScheduler, private Platform::CallbackHandler {
 public:
  /// How many events a new root's history holds.
  static constexpr unsigned int historyEntryCountDefault = 100;

  /// Belongs to the calling thread. Use the functions below the class, which return shared
  /// pointers.
  explicit TaskSchedulerRoot(const String& name);
  ~TaskSchedulerRoot() override;

  bool resetStatsInProgress() const override;
  /// Asks the event loop for a callback; ignored while suspended.
  void requestSchedulerRun() override;
  void handleTaskForceYieldInTest() override;
  void taskRegister(TaskImpl* task) override;
  /// Called by the event loop: a slice of run steps.
  void callback() override;

  /// Switches virtual time as fast forward says, if the root follows it, then runs one task.
  void handleSchedulerRun();

  /// The most urgent priority that has a runnable task, which the next step will run unless the
  /// starvation guard picks another. oneBeyondLast when no task is runnable or no step is
  /// requested.
  unsigned nextUrgency() const;

  /// Adds or removes a task group of this thread. Adding one twice, or removing one that is not
  /// registered, ends the process.
  void registerScheduler(TaskScheduler* scheduler);
  void unregisterScheduler(TaskScheduler* scheduler);
  /// The root and its groups.
  const std::set<TaskScheduler*>& schedulers() const { return schedulers_; }
  unsigned int taskGroupCount() const;
  unsigned int totalRegisteredTaskCount() const;
  TaskSchedulerQueueStats queueStatsRoot() const;

  /// How long, in nanoseconds, the root may run tasks before the loop polls the kernel again: 20 us
  /// at first; with 0 the loop polls before every run. Tarvo/TaskScheduler.h says which events wait
  /// for the end of a slice. Fails an assertion when it is negative.
  TaskTimeDuration runSlice() const { return runSlice_; }
  void runSliceIs(TaskTimeDuration length);

  /// While the root is suspended no task runs, neither its own nor those of its groups; scheduled
  /// tasks wait.
  bool suspended() const { return suspended_; }
  void suspendedIs(bool suspended);

  /// Whether quanta are measured in virtual time. A root that follows fast forward, as a new one
  /// does, sets this at each run step; call followFastForwardIs(false) before setting it by hand.
  bool virtualTime() const { return virtualTime_; }
  void virtualTimeIs(bool virtualTime);
  bool followFastForward() const { return followFastForward_; }
  void followFastForwardIs(bool follow) { followFastForward_ = follow; }

  /// The test yield ratio of all tasks that have none of their own.
  unsigned char taskTestYieldRatio() const { return taskTestYieldRatio_; }
  void taskTestYieldRatioIs(unsigned char ratio);
  /// Makes every task of the root choose its yield mode again.
  void taskShouldYieldModeReevaluate();

  /// The thread check, on at first.
  bool threadSanityDisabled() const { return threadCheck_.disabled; }
  void threadSanityDisabledIs(bool disabled);
  bool onOwnThread() const { return Locking::Impl::self() == threadCheck_.owner; }
  /// Ends the process with a message that names both threads.
  [[noreturn]] void failThreadCheck() const;

  /// A table of all figures, as docs/Statistics.md explains them: one line per task and per record
  /// of completed tasks, sorted by total run time, with the members of a group under the group's
  /// line; then one line per queue. Shows only names that begin with `prefix`.
  void statsRenderTextForDebug(std::ostream& out, const String& prefix = {}) const;
  /// The descriptor stays open.
  void statsRenderTextForDebug(int fd, const String& prefix = {}) const;
  String statsRenderTextForDebugToString(const String& prefix = {}) const;
  void statsRenderTextForDebugStdErr(const String& prefix = {}) const;

  /// The same as JSON, for programs; durations are nanoseconds.
  String statsRenderJson(const String& prefix = {}) const;
  /// The same in the text format of Prometheus, ready to be served; durations are seconds. All
  /// tasks of one name and priority in one scheduler, completed ones included, are one series. The
  /// label "root" of each series is the thread's name. Tarvo/PrometheusPages.h joins the pages of
  /// several threads.
  String statsRenderPrometheus() const;

  /// A task of low priority writes the JSON to a descriptor, in pieces, and waits when the reader
  /// is slow. Each record is of one moment; tasks made during the writing are missing. At the end
  /// the task calls `done` with 0, or with the errno that ended the writing, and with the number of
  /// bytes written. The caller keeps the task until then: dropping it ends the writing. The file
  /// becomes non-blocking. The descriptor stays the caller's, who may close it: the task writes to
  /// a copy. The task's quantum is one millisecond, unless taskQuantumIs() changes it.
  std::shared_ptr<FileDescriptorTask> snapshotRenderJsonAsync(
      int fd, std::function<void(int error, std::uint64_t bytes)> done = nullptr);
  /// The same with the page for Prometheus. Uses some 300 bytes of memory per series while it is
  /// made.
  std::shared_ptr<FileDescriptorTask> snapshotRenderPrometheusAsync(
      int fd, std::function<void(int error, std::uint64_t bytes)> done = nullptr);

  /// The history as a timeline, in the trace event format that Perfetto and Chrome open: one track
  /// per scheduler with its runs, above them waits, suspensions and idle times, and all other
  /// events.
  String timelineRenderJson() const;

  /// A task of low priority sets the figures of all tasks and schedulers back to the start and
  /// drops the records of completed tasks, in pieces. resetStatsInProgress() is true until it has
  /// finished; each task's handleResetStats() is called once. At the end the task calls `done`. The
  /// caller keeps the task until then: dropping it stops the reset halfway.
  std::shared_ptr<Task> statsResetAsync(std::function<void()> done = nullptr);

  /// When the root was made.
  TaskClock::time_point startTime() const { return startTime_; }

  TaskKey newestTaskKey() const { return TaskKey(lastTaskKey_); }
  TaskKey newTaskKey() { return TaskKey(++lastTaskKey_); }

  /// 0 to 100, where 100 is as rare as one in 45 million.
  int randomPercent();
  /// The state of rand_r() for the jitter of timer tasks.
  unsigned int& jitterState() { return jitterState_; }
  /// The wheel of this root's timer tasks.
  const std::shared_ptr<TimerWheel>& timerWheel() const { return timerWheel_; }

  /// The capacity of the history. Changing it keeps the newest events; above 0xfffffff it throws
  /// std::length_error.
  unsigned int historyEntryCount() const;
  void historyEntryCountIs(unsigned int count);
  void clearHistory() noexcept;
  void historyRenderTextForDebug(std::ostream& out) const;
  /// The descriptor stays open.
  void historyRenderTextForDebug(int fd) const;
  String historyRenderTextForDebugToString() const;
  void historyRenderTextForDebugStdErr() const;

 private:
  class StatsReset;

  TaskClock::time_point rootStep(TaskClock::time_point now);
  TaskClock::time_point takeSteps(TaskClock::time_point now);

  std::shared_ptr<Impl::SchedulerCallback> callbackControl_;
  std::set<TaskScheduler*> schedulers_;
  ThreadCheck threadCheck_;
  String threadName_;
  pid_t pid_;
  TaskTimeDuration runSlice_ = 20'000;
  bool inSlice_ = false;     // inside callback(): requests only set stepWanted_
  bool stepWanted_ = false;  // another step was requested during the present one
  bool suspended_ = false;
  bool virtualTime_ = false;
  bool followFastForward_ = true;
  unsigned char taskTestYieldRatio_ = 0;
  unsigned int resetsInProgress_ = 0;
  TaskClock::time_point startTime_ = TaskClock::now();
  unsigned int randomState_;
  unsigned int jitterState_ = 0;
  std::shared_ptr<TimerWheel> timerWheel_;
  std::uint64_t lastTaskKey_ = 0;
};

/// The calling thread's shared root, made at the first call. Its name is "main" on the main thread,
/// "thread:" and pthread_self() on any other. The thread drops its reference when it ends.
TARVO_EXPORT std::shared_ptr<TaskSchedulerRoot> schedulerRootTarvo();

/// A root of the caller's own, on the calling thread.
TARVO_EXPORT std::shared_ptr<TaskSchedulerRoot> schedulerRootTarvoNonShared(const String& name);

}  // namespace Tarvo

#endif
