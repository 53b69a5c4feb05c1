#include "Tarvo/TaskSchedulerRoot.h"

#include <pthread.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <sstream>
#include <utility>

#include "Tarvo/Allocator.h"
#include "Tarvo/FdToStream.h"
#include "Tarvo/TaskSchedulerHistory.h"
#include "Tarvo/Thread.h"
#include "foundation/PassCancellation.h"
#include "platform/libevent/Notification.h"
#include "platform/libevent/SchedulerCallback.h"
#include "platform/libevent/ThreadLoop.h"
#include "scheduler/SchedulerTrace.h"

namespace Tarvo {

using Impl::taskSchedulerTrace;

TaskSchedulerRoot::TaskSchedulerRoot(const String& name)
    : TaskScheduler(name, this, threadCheck_,
                    std::make_shared<TaskSchedulerHistory>(historyEntryCountDefault)),
      callbackControl_(Impl::getSchedulerCallback(this)),
      threadCheck_{Locking::Impl::self()},
      threadName_(Tarvo::threadName()),
      pid_(getpid()),
      randomState_(static_cast<unsigned int>(TaskClock::now().time_since_epoch().count()) ^
                   static_cast<unsigned int>(Tarvo::gettid())),
      timerWheel_(getTimerWheelForTaskScheduler(Platform::eventPriorityDefault)) {
  registerScheduler(this);
  virtualTimeIs(Platform::fastForward());
}

TaskSchedulerRoot::~TaskSchedulerRoot() = default;

bool TaskSchedulerRoot::resetStatsInProgress() const { return resetsInProgress_ != 0; }

void TaskSchedulerRoot::requestSchedulerRun() {
  if (suspended_) {
    TARVO_TRACE(taskSchedulerTrace, 8, "{} ignore requestSchedulerRun, scheduler is suspended",
                *this);
    return;
  }
  if (inSlice_) {
    stepWanted_ = true;  // takeSteps() goes on, or callback() requests a callback at its end
  } else if (runSlice_ == 0) {
    callbackControl_->requestCallback();
  } else {
    callbackControl_->requestSoon();
  }
}

void TaskSchedulerRoot::handleTaskForceYieldInTest() {}

void TaskSchedulerRoot::taskRegister(TaskImpl* task) { TaskScheduler::taskRegister(task); }

void TaskSchedulerRoot::runSliceIs(TaskTimeDuration length) {
  sanityCheckCurrentRunningThread();
  TARVO_ASSERT(length >= 0, "a slice of {} ns", length);
  runSlice_ = length;
}

void TaskSchedulerRoot::callback() {
  sanityCheckCurrentRunningThread();
  const auto self = weak_from_this().lock();  // a body may drop the last other reference
  auto now = TaskClock::now();
  inSlice_ = true;
  try {
    now = takeSteps(now);
  } catch (...) {
    inSlice_ = false;
    Impl::passCancellation();
    if (stepWanted_) requestNextRun(TaskClock::now());
    if (self == nullptr || self.use_count() > 1) throw;
    // The callback control would call handleCallbackException() of this root, which is destroyed on
    // return. Keep the exception here instead.
    Impl::keepExceptionForLoop();
    return;
  }
  inSlice_ = false;
  if (stepWanted_) requestNextRun(now);
}

// Each step requests the next one through stepWanted_. The time at which a step ends is passed to
// the next, which saves a reading of the clock.
TaskClock::time_point TaskSchedulerRoot::takeSteps(TaskClock::time_point now) {
  const Impl::SchedulerCallback::Slice slice(*callbackControl_, now,
                                             std::chrono::nanoseconds(runSlice_));
  do {
    stepWanted_ = false;
    now = rootStep(now);
    while (!stepWanted_ && !slice.mayWait()) {
    }
  } while (stepWanted_ && !virtualTime_ && slice.goesOn(now));
  return now;
}

void TaskSchedulerRoot::handleSchedulerRun() {
  sanityCheckCurrentRunningThread();
  rootStep(TaskClock::now());
}

TaskClock::time_point TaskSchedulerRoot::rootStep(TaskClock::time_point now) {
  const bool wanted = followFastForward_ && Platform::fastForward();
  if (wanted != virtualTime_) virtualTimeIs(wanted);
  return runStep(now);
}

unsigned TaskSchedulerRoot::nextUrgency() const {
  const bool stepFollows = inSlice_ ? stepWanted_ : callbackControl_->pendingCallback();
  unsigned urgency = stepFollows ? 0 : TaskPriority::oneBeyondLast;
  while (urgency < TaskPriority::oneBeyondLast && !hasTaskToRun(urgency)) ++urgency;
  return urgency;
}

void TaskSchedulerRoot::registerScheduler(TaskScheduler* scheduler) {
  sanityCheckCurrentRunningThread();
  if (!schedulers_.insert(scheduler).second) TARVO_ABORT("insert failed for {}", *scheduler);
}

void TaskSchedulerRoot::unregisterScheduler(TaskScheduler* scheduler) {
  sanityCheckCurrentRunningThread();
  if (schedulers_.erase(scheduler) == 0) TARVO_ABORT("delete failed for {}", *scheduler);
}

unsigned int TaskSchedulerRoot::taskGroupCount() const {
  return static_cast<unsigned int>(schedulers_.size() - 1);
}

unsigned int TaskSchedulerRoot::totalRegisteredTaskCount() const {
  unsigned int sum = 0;
  for (const TaskScheduler* scheduler : schedulers_) {
    for (const auto& [priority, stats] : scheduler->queueStats()) {
      sum += scheduler->tasksPerPriority(priority);
    }
  }
  return sum;
}

TaskSchedulerQueueStats TaskSchedulerRoot::queueStatsRoot() const {
  TaskSchedulerQueueStats sum;
  for (const TaskScheduler* scheduler : schedulers_) sum += scheduler->queueStats();
  return sum;
}

void TaskSchedulerRoot::suspendedIs(bool suspended) {
  sanityCheckCurrentRunningThread();
  if (suspended == suspended_) return;
  suspended_ = suspended;
  const auto now = TaskClock::now();
  recordEvent(now, suspended ? TaskSchedulerEventType::schedulerSuspended
                             : TaskSchedulerEventType::schedulerUnsuspended);
  if (suspended) return;
  try {
    requestNextRun(now);
  } catch (...) {
    suspended_ = true;  // no run was requested; the caller may try again
    throw;
  }
}

void TaskSchedulerRoot::virtualTimeIs(bool virtualTime) {
  sanityCheckCurrentRunningThread();
  if (virtualTime == virtualTime_) return;
  virtualTime_ = virtualTime;
  recordEvent(TaskClock::now(), virtualTime ? TaskSchedulerEventType::schedulerVirtualTimeOn
                                            : TaskSchedulerEventType::schedulerVirtualTimeOff);
  taskShouldYieldModeReevaluate();
}

void TaskSchedulerRoot::taskTestYieldRatioIs(unsigned char ratio) {
  sanityCheckCurrentRunningThread();
  if (ratio == taskTestYieldRatio_) return;
  taskTestYieldRatio_ = ratio;
  recordEvent(TaskClock::now(), ratio != 0 ? TaskSchedulerEventType::schedulerTestYieldRatioOn
                                           : TaskSchedulerEventType::schedulerTestYieldRatioOff);
  taskShouldYieldModeReevaluate();
}

void TaskSchedulerRoot::taskShouldYieldModeReevaluate() {
  for (const TaskScheduler* scheduler : schedulers_) {
    for (TaskImpl& task : scheduler->registeredTasks()) task.taskShouldYieldModeReevaluate();
  }
}

void TaskSchedulerRoot::threadSanityDisabledIs(bool disabled) {
  threadCheck_.disabled = disabled;
  TARVO_TRACE(taskSchedulerTrace, 2, "{} {}able thread sanity checking", *this,
              disabled ? "dis" : "en");
}

namespace {

// Makes the library export the inline function, for programs compiled when it was not inline.
[[gnu::used]] constexpr auto threadCheck = &TaskScheduler::sanityCheckCurrentRunningThread;

}  // namespace

void TaskScheduler::failThreadCheckOfRoot() const { root_->failThreadCheck(); }

void TaskSchedulerRoot::failThreadCheck() const {
  TARVO_ABORT("Executing in wrong thread {}({}) pid {} scheduler belongs to thread {}({}) pid {}",
              toThreadIdString(std::this_thread::get_id()), Tarvo::threadName(), getpid(),
              toThreadIdString(std::thread::id(threadCheck_.owner)), threadName_, pid_);
}

int TaskSchedulerRoot::randomPercent() { return rand_r(&randomState_) / 21474836; }

unsigned int TaskSchedulerRoot::historyEntryCount() const { return history().capacity(); }
void TaskSchedulerRoot::historyEntryCountIs(unsigned int count) { history().capacityIs(count); }

void TaskSchedulerRoot::clearHistory() noexcept {
  TARVO_TRACE(taskSchedulerTrace, 2, "{} history cleared", *this);
  history().clear();
}

void TaskSchedulerRoot::historyRenderTextForDebug(std::ostream& out) const {
  history().renderText(out);
}

void TaskSchedulerRoot::historyRenderTextForDebug(int fd) const {
  FdToStream out(fd);
  history().renderText(out);
}

String TaskSchedulerRoot::historyRenderTextForDebugToString() const {
  std::ostringstream out;
  out.exceptions(std::ios::badbit);  // throw std::bad_alloc instead of returning half a history
  history().renderText(out);
  return out.str();
}

void TaskSchedulerRoot::historyRenderTextForDebugStdErr() const { history().renderText(std::cerr); }

std::shared_ptr<TaskSchedulerRoot> schedulerRootTarvoNonShared(const String& name) {
  return std::allocate_shared<TaskSchedulerRoot>(Allocator<TaskSchedulerRoot>(), name);
}

std::shared_ptr<TaskSchedulerRoot> schedulerRootTarvo() {
  std::shared_ptr<void>& root = Impl::ThreadLoop::own().part(Impl::ThreadLoop::Part::root);
  if (root == nullptr) {
    root = schedulerRootTarvoNonShared(isMainThread() ? String("main")
                                                      : fmt::format("thread:{}", pthread_self()));
  }
  return std::static_pointer_cast<TaskSchedulerRoot>(root);
}

}  // namespace Tarvo
