#ifndef TARVO_TASKSCHEDULERROOT_H
#define TARVO_TASKSCHEDULERROOT_H

/// The scheduler that sits on a thread's event loop. Tarvo/TaskScheduler.h says what runs when.

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <set>
#include <thread>

#include <sys/types.h>

#include "Tarvo/Export.h"
#include "Tarvo/Platform.h"
#include "Tarvo/String.h"
#include "Tarvo/TaskSchedulerCore.h"
#include "Tarvo/TimerWheel.h"

namespace Tarvo {

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
  /// Called by the event loop: one run step.
  void callback() override;

  /// Joins or leaves virtual time when the root follows it, then runs one task.
  void handleSchedulerRun();

  /// Adds a task group of this thread, or removes it. End the process when it is registered
  /// already, or is not.
  void registerScheduler(TaskScheduler* scheduler);
  void unregisterScheduler(TaskScheduler* scheduler);
  /// The root and its groups.
  const std::set<TaskScheduler*>& schedulers() const { return schedulers_; }
  unsigned int taskGroupCount() const;
  unsigned int totalRegisteredTaskCount() const;
  TaskSchedulerQueueStats queueStatsRoot() const;

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
  bool threadSanityDisabled() const { return threadSanityDisabled_; }
  void threadSanityDisabledIs(bool disabled);
  bool onOwnThread() const { return std::this_thread::get_id() == threadId_; }
  /// Ends the process with a message that names both threads.
  [[noreturn]] void failThreadCheck() const;

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
  std::shared_ptr<Platform::CallbackControl> callbackControl_;
  std::set<TaskScheduler*> schedulers_;
  std::thread::id threadId_;
  String threadName_;
  pid_t pid_;
  bool suspended_ = false;
  bool virtualTime_ = false;
  bool followFastForward_ = true;
  bool threadSanityDisabled_ = false;
  unsigned char taskTestYieldRatio_ = 0;
  bool resetStatsInProgress_ = false;
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

inline void TaskScheduler::sanityCheckCurrentRunningThread() const {
  if (!root_->onOwnThread() && !root_->threadSanityDisabled()) [[unlikely]] {
    root_->failThreadCheck();
  }
}

}  // namespace Tarvo

#endif
