#ifndef TARVO_TASKSCHEDULERROOT_H
#define TARVO_TASKSCHEDULERROOT_H

/// The scheduler that sits on a thread's event loop. Tarvo/TaskScheduler.h says what runs when.

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <set>
#include <thread>

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

  /// Belongs to the calling thread. Use the functions below, which share it.
  explicit TaskSchedulerRoot(const String& name);
  ~TaskSchedulerRoot() override;

  bool resetStatsInProgress() const override;
  /// Asks the event loop for a callback; ignored while suspended.
  void requestSchedulerRun() override;
  void handleTaskForceYieldInTest() override;
  void taskRegister(TaskImpl* task) override;
  /// Called by the event loop: a slice of run steps.
  void callback() override;

  /// Joins or leaves virtual time when the root follows it, then runs one task.
  void handleSchedulerRun();

  /// The priority that the next step runs, unless less urgent ones have waited too long; beyond the
  /// last when nothing is to run or no step is requested.
  unsigned nextUrgency() const;

  /// Adds a task group of this thread, or removes it. End the process when it is registered
  /// already, or is not.
  void registerScheduler(TaskScheduler* scheduler);
  void unregisterScheduler(TaskScheduler* scheduler);
  /// The root and its groups.
  const std::set<TaskScheduler*>& schedulers() const { return schedulers_; }
  unsigned int taskGroupCount() const;
  unsigned int totalRegisteredTaskCount() const;
  TaskSchedulerQueueStats queueStatsRoot() const;

  /// How long, in nanoseconds, the root may run tasks before the loop asks the kernel again; 20 us
  /// at first, and 0 asks before every run. Tarvo/TaskScheduler.h says what a slice leaves waiting.
  /// Fails an assertion when it is negative.
  TaskTimeDuration runSlice() const { return runSlice_; }
  void runSliceIs(TaskTimeDuration length);

  /// While suspended nothing runs, in the groups neither; what is scheduled waits.
  bool suspended() const { return suspended_; }
  void suspendedIs(bool suspended);

  /// Whether tasks see their quanta pass in virtual time. A root that follows fast forward, as a
  /// new one does, sets this by itself at each run step; to set it by hand, stop following first.
  bool virtualTime() const { return virtualTime_; }
  void virtualTimeIs(bool virtualTime);
  bool followFastForward() const { return followFastForward_; }
  void followFastForwardIs(bool follow) { followFastForward_ = follow; }

  /// The test yield ratio of all tasks that have none of their own.
  unsigned char taskTestYieldRatio() const { return taskTestYieldRatio_; }
  void taskTestYieldRatioIs(unsigned char ratio);
  /// Lets every task of the thread choose its yield mode anew.
  void taskShouldYieldModeReevaluate();

  /// The thread check, on at first.
  bool threadSanityDisabled() const { return threadCheck_.disabled; }
  void threadSanityDisabledIs(bool disabled);
  bool onOwnThread() const { return std::thread::id(Locking::Impl::self()) == threadCheck_.owner; }
  /// Ends the process with a message that names both threads.
  [[noreturn]] void failThreadCheck() const;

  /// The figures of everything, as docs/Statistics.md explains them: a line per task and per record
  /// of completed tasks, those that ran longest first and the members of a group under its line,
  /// then a line per queue. Only what has a name that begins with `prefix`.
  void statsRenderTextForDebug(std::ostream& out, const String& prefix = {}) const;
  /// The descriptor stays open.
  void statsRenderTextForDebug(int fd, const String& prefix = {}) const;
  String statsRenderTextForDebugToString(const String& prefix = {}) const;
  void statsRenderTextForDebugStdErr(const String& prefix = {}) const;

  /// The same as JSON, for programs; times in nanoseconds.
  String statsRenderJson(const String& prefix = {}) const;
  /// The same in the text format of Prometheus, ready to be served; times in seconds. Tasks of one
  /// name and priority in one scheduler are one series, together with what is completed. The label
  /// "root" of each series is the thread's name; Tarvo/PrometheusPages.h joins pages of several.
  String statsRenderPrometheus() const;

  /// Writes the JSON to a descriptor as a task of low priority, in pieces, waiting when the reader
  /// is slow. Each record is of one moment; tasks that come meanwhile are missing. `done` is called
  /// at the end, by that task, with 0 or the errno that ended it, and what was written. The caller
  /// keeps the task until then: dropping it ends the writing. The file becomes non-blocking. The
  /// descriptor stays the caller's, who may close it: a copy is written to. The task's quantum is a
  /// millisecond, unless taskQuantumIs() gives it another.
  std::shared_ptr<FileDescriptorTask> snapshotRenderJsonAsync(
      int fd, std::function<void(int error, std::uint64_t bytes)> done = nullptr);
  /// The same with the page for Prometheus. While it is made it holds some 300 bytes a series.
  std::shared_ptr<FileDescriptorTask> snapshotRenderPrometheusAsync(
      int fd, std::function<void(int error, std::uint64_t bytes)> done = nullptr);

  /// The history as a timeline, in the trace event format that Perfetto and Chrome open: a track
  /// per scheduler with runs, over them waits, suspensions and idle times, and all other events.
  String timelineRenderJson() const;

  /// Sets the figures of all tasks and schedulers back to the start and forgets the completed
  /// tasks, as a task of low priority, piece by piece. Meanwhile resetStatsInProgress() is true;
  /// each task's handleResetStats() is called once. `done` is called at the end, by that task. The
  /// caller keeps the task until then: dropping it leaves the rest as it is.
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
  unsigned int historyEntryCount() const { return history().capacity(); }
  void historyEntryCountIs(unsigned int count) { history().capacityIs(count); }
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
  bool inSlice_ = false;     // requests are noted, not passed on to the loop
  bool stepWanted_ = false;  // and this is the note
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

/// The calling thread's shared root, made at the first call: "main" on the main thread,
/// "thread:" and pthread_self() on any other. The thread lets go of it when it ends.
TARVO_EXPORT std::shared_ptr<TaskSchedulerRoot> schedulerRootTarvo();

/// A root of the caller's own, on the calling thread.
TARVO_EXPORT std::shared_ptr<TaskSchedulerRoot> schedulerRootTarvoNonShared(const String& name);

}  // namespace Tarvo

#endif
