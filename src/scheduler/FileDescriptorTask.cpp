#include "Tarvo/FileDescriptorTask.h"

#include <utility>

#include "Tarvo/Allocator.h"
#include "Tarvo/Assert.h"
#include "Tarvo/TaskScheduler.h"
#include "Tarvo/TaskSchedulerHistory.h"
#include "platform/libevent/DeferredFdControl.h"

namespace Tarvo {

/// The task of one direction. The FileDescriptorTask itself is never queued: it owns one of these
/// per direction and is called by them.
class FileDescriptorTask::ReadWriteTaskBase : public Task {
 public:
  ReadWriteTaskBase(FileDescriptorTask* owner, const String& suffix)
      : Task(owner->taskScheduler(), owner->taskPriority(), owner->taskName() + suffix),
        owner_(owner) {
    if (owner->taskStatsName() != owner->taskName()) {
      TaskImpl::taskStatsNameIs(owner->taskStatsName() + suffix);
    }
  }
  ~ReadWriteTaskBase() override { handleDestroy(); }

  void ownerGone() { owner_ = nullptr; }
  void handleTaskBusy() override {
    if (owner_ != nullptr) owner_->taskBusyIs(owner_->taskScheduled(), taskBusyChangeTime());
  }

 protected:
  /// The owner, kept alive; null when it is being destroyed. Throws std::bad_weak_ptr when the
  /// owner is not held by a shared pointer.
  std::shared_ptr<FileDescriptorTask> sharedOwner() const {
    if (owner_ == nullptr) return nullptr;
    return std::static_pointer_cast<FileDescriptorTask>(owner_->shared_from_this());
  }

  FileDescriptorTask* owner_;  // null once it is being destroyed
};

class FileDescriptorTask::ReadTask final : public ReadWriteTaskBase {
 public:
  explicit ReadTask(FileDescriptorTask* owner) : ReadWriteTaskBase(owner, ":read") {}
  void taskExecute() override {
    if (const auto owner = sharedOwner()) owner->_taskExecuteReadable();
  }
  // Only the reading direction calls the owner's hook, so that it is called once per reset.
  void handleResetStats() override {
    if (owner_ != nullptr) owner_->handleResetStats();
  }
};

class FileDescriptorTask::WriteTask final : public ReadWriteTaskBase {
 public:
  explicit WriteTask(FileDescriptorTask* owner) : ReadWriteTaskBase(owner, ":write") {}
  void taskExecute() override {
    if (const auto owner = sharedOwner()) owner->_taskExecuteWritable();
  }
};

/// Marks the direction whose body is running.
class FileDescriptorTask::Executing {
 public:
  Executing(FileDescriptorTask& owner, TaskImpl& direction) : owner_(owner) {
    owner_.executingTask_ = &direction;
  }
  Executing(const Executing&) = delete;
  Executing& operator=(const Executing&) = delete;
  ~Executing() { owner_.executingTask_ = nullptr; }

 private:
  FileDescriptorTask& owner_;
};

FileDescriptorTask::FileDescriptorTask(std::shared_ptr<TaskScheduler> scheduler,
                                       TaskPriority priority, String name)
    : _TaskBase(std::move(scheduler), priority, name),
      fdControl_(Impl::getDeferredFdControl(this, [this] { unscheduleDirections(); })) {
  readTask_ = std::allocate_shared<ReadTask>(Allocator<ReadTask>(), this);
  taskWatchReadableIs(true);
}

FileDescriptorTask::~FileDescriptorTask() {
  readTask_->ownerGone();
  if (writeTask_ != nullptr) writeTask_->ownerGone();
  writeTask_.reset();
  readTask_.reset();
  fdControl_.reset();
}

void FileDescriptorTask::taskStatsNameIs(String name) {
  readTask_->taskStatsNameIs(name + ":read");
  if (writeTask_ != nullptr) writeTask_->taskStatsNameIs(name + ":write");
  _TaskBase::taskStatsNameIs(std::move(name));
}

bool FileDescriptorTask::taskScheduled() const {
  return taskScheduledReadable() || taskScheduledWritable();
}
bool FileDescriptorTask::taskScheduledReadable() const { return readTask_->taskScheduled(); }
bool FileDescriptorTask::taskScheduledWritable() const {
  return writeTask_ != nullptr && writeTask_->taskScheduled();
}

void FileDescriptorTask::taskBusyIs(bool busy, TaskClock::time_point now) {
  if (busy == taskBusy_) return;
  taskBusy_ = busy;
  taskScheduler()->history().insert(
      now, busy ? TaskSchedulerEventType::busy : TaskSchedulerEventType::idle, this);
  handleTaskBusy();
}

// Which descriptor and which directions are watched.

void FileDescriptorTask::taskWatchReadableIs(bool on) {
  taskScheduler()->sanityCheckCurrentRunningThread();
  if (on == taskWatchReadable_) return;
  taskWatchReadable_ = on;
  fdControl_->setReads(on);
  if (!on) readTask_->unscheduleTask();
}

void FileDescriptorTask::taskWatchWritableIs(bool on) {
  taskScheduler()->sanityCheckCurrentRunningThread();
  if (on == taskWatchWritable_) return;
  checkCreateWriteTask();
  taskWatchWritable_ = on;
  fdControl_->setWrites(on);
  if (on) return;
  writeRunWanted_ = false;
  writeTask_->unscheduleTask();
}

int FileDescriptorTask::taskWatchFd() const { return fdControl_->getFd(); }

void FileDescriptorTask::taskWatchFdIs(int fd) {
  taskScheduler()->sanityCheckCurrentRunningThread();
  if (fd == taskWatchFd() && (fd < 0 || !fdControl_->namesOtherFile())) return;
  const auto self = weak_from_this().lock();  // handleTaskBusy() may drop the last reference
  unscheduleDirections();
  fdControl_->setFd(fd);
}

void FileDescriptorTask::taskWatchFdDel() {
  taskScheduler()->sanityCheckCurrentRunningThread();
  const auto self = weak_from_this().lock();
  unscheduleDirections();
  fdControl_->delFd();
}

void FileDescriptorTask::unscheduleDirections() {
  const auto self = weak_from_this().lock();
  writeRunWanted_ = false;
  readTask_->unscheduleTask();
  if (writeTask_ != nullptr) writeTask_->unscheduleTask();
}

void FileDescriptorTask::checkCreateWriteTask() {
  if (writeTask_ != nullptr) return;
  const auto task = std::allocate_shared<WriteTask>(Allocator<WriteTask>(), this);
  // taskForceYieldInTest: taskShouldYield() says yes at every call, whatever the quantum.
  if (!readTask_->taskForceYieldInTest()) task->taskQuantumNoCheckIs(readTask_->taskQuantum());
  task->taskSuspendedIs(readTask_->taskSuspended());
  task->taskTestYieldRatioIs(readTask_->taskTestYieldRatio());
  task->includeInCompletedTaskIs(readTask_->includeInCompletedTask());
  writeTask_ = task;
}

void FileDescriptorTask::scheduleTaskReadable() { readTask_->scheduleTask(); }
void FileDescriptorTask::scheduleTaskWritable() {
  taskScheduler()->sanityCheckCurrentRunningThread();
  checkCreateWriteTask();
  const auto self = weak_from_this().lock();  // handleTaskBusy() may drop the last reference
  const bool wanted = std::exchange(writeRunWanted_, true);
  try {
    writeTask_->scheduleTask();
  } catch (...) {  // what was refused is not made up for at resumption
    if (!writeTask_->taskScheduled()) writeRunWanted_ = wanted;
    throw;
  }
}

// From a report to a run: the loop reports a direction once; its task is scheduled; after the run
// the read control is re-armed. Writing is one-shot: the body asks again.

void FileDescriptorTask::readFdEvent(int fd) {
  TARVO_ASSERT(taskWatchReadable_, "readFdEvent() called with taskWatchReadable off");
  TARVO_ASSERT(fd == taskWatchFd(), "Notified about {} watching {}", fd, taskWatchFd());
  scheduleTaskReadable();
}

void FileDescriptorTask::writeFdEvent(int fd) {
  TARVO_ASSERT(taskWatchWritable_, "writeFdEvent() called with taskWatchWritable off");
  TARVO_ASSERT(fd == taskWatchFd(), "Notified about {} watching {}", fd, taskWatchFd());
  scheduleTaskWritable();
}

void FileDescriptorTask::_taskExecuteReadable() {
  struct Rearm {
    // On every way out, also when the body threw. A task that is queued again re-arms after its
    // next run.
    ~Rearm() {
      if (task.readTask_->taskScheduled()) return;
      if (task.readDrained_) {
        task.fdControl_->rearmReadDrained();
        return;
      }
      // The poll may be delayed by at most an eighth of the queue ahead: then polls are batched,
      // and this task falls back only a little. PendingPolls counts steps of the root, and all
      // members of a group run within one step, so a member waits for one step at most.
      const TaskScheduler& scheduler = *task.taskScheduler();
      const std::uint64_t ahead = scheduler.tasksAhead(task.taskPriority_) / 8;
      const bool member = &scheduler != scheduler.root();
      task.fdControl_->rearmRead(member && ahead > 0 ? 1 : ahead, task.taskPriority_);
    }
    FileDescriptorTask& task;
  } const rearm{*this};
  TARVO_ASSERT(taskWatchReadable_, "ReadTask should only run if taskWatchReadable");
  TARVO_ASSERT(executingTask_ == nullptr, "Executing task already set");
  readDrained_ = false;
  const Executing executing(*this, *readTask_);
  taskExecuteReadable();
}

void FileDescriptorTask::taskReadDrained() {
  TARVO_ASSERT(&executingTask() == readTask_.get(), "{}: not reading", *this);
  readDrained_ = true;
}

void FileDescriptorTask::_taskExecuteWritable() {
  writeRunWanted_ = false;
  taskWatchWritableIs(false);
  TARVO_ASSERT(executingTask_ == nullptr, "Executing task already set");
  const Executing executing(*this, *writeTask_);
  taskExecuteWritable();
}

TaskImpl& FileDescriptorTask::executingTask() const {
  taskScheduler()->sanityCheckCurrentRunningThread();
  TARVO_ASSERT(executingTask_ != nullptr, "{}: no body is running", *this);
  return *executingTask_;
}

bool FileDescriptorTask::taskShouldYield() const { return executingTask().taskShouldYield(); }
void FileDescriptorTask::taskWorkCountInc(unsigned long long n) {
  executingTask().taskWorkCountInc(n);
}
void FileDescriptorTask::taskWorkPendingIs(unsigned int n) { executingTask().taskWorkPendingIs(n); }

// Figures.

unsigned long long FileDescriptorTask::taskWorkCountReadableTotal() const {
  return readTask_->taskWorkCountTotal();
}
float FileDescriptorTask::taskWorkCountReadableDecayAvg() const {
  return readTask_->taskWorkCountDecayAvg();
}
unsigned int FileDescriptorTask::taskWorkCountReadableHighWaterMark() const {
  return readTask_->taskWorkCountHighWaterMark();
}
unsigned int FileDescriptorTask::taskWorkPendingReadable() const {
  return readTask_->taskWorkPending();
}
unsigned int FileDescriptorTask::taskWorkPendingReadableHighWaterMark() const {
  return readTask_->taskWorkPendingHighWaterMark();
}
unsigned int FileDescriptorTask::taskRunCountReadable() const { return readTask_->taskRunCount(); }
void FileDescriptorTask::taskWorkCountReadableInc(unsigned long long n) {
  readTask_->taskWorkCountInc(n);
}
void FileDescriptorTask::taskWorkPendingReadableIs(unsigned int n) {
  readTask_->taskWorkPendingIs(n);
}

unsigned long long FileDescriptorTask::taskWorkCountWritableTotal() const {
  return writeTask_ == nullptr ? 0 : writeTask_->taskWorkCountTotal();
}
float FileDescriptorTask::taskWorkCountWritableDecayAvg() const {
  return writeTask_ == nullptr ? 0 : writeTask_->taskWorkCountDecayAvg();
}
unsigned int FileDescriptorTask::taskWorkCountWritableHighWaterMark() const {
  return writeTask_ == nullptr ? 0 : writeTask_->taskWorkCountHighWaterMark();
}
unsigned int FileDescriptorTask::taskWorkPendingWritable() const {
  return writeTask_ == nullptr ? 0 : writeTask_->taskWorkPending();
}
unsigned int FileDescriptorTask::taskWorkPendingWritableHighWaterMark() const {
  return writeTask_ == nullptr ? 0 : writeTask_->taskWorkPendingHighWaterMark();
}
unsigned int FileDescriptorTask::taskRunCountWritable() const {
  return writeTask_ == nullptr ? 0 : writeTask_->taskRunCount();
}
void FileDescriptorTask::taskWorkCountWritableInc(unsigned long long n) {
  TARVO_ASSERT(writeTask_ != nullptr, "WriteTask not created by taskWatchWritableIs( true )");
  writeTask_->taskWorkCountInc(n);
}
void FileDescriptorTask::taskWorkPendingWritableIs(unsigned int n) {
  TARVO_ASSERT(writeTask_ != nullptr, "WriteTask not created by taskWatchWritableIs( true )");
  writeTask_->taskWorkPendingIs(n);
}

unsigned int FileDescriptorTask::taskRunCount() const {
  return taskRunCountReadable() + taskRunCountWritable();
}

// Settings.

TaskTimeDuration FileDescriptorTask::taskQuantum() const { return readTask_->taskQuantum(); }
void FileDescriptorTask::taskQuantumIs(TaskTimeDuration quantum) {
  readTask_->taskQuantumIs(quantum);
  if (writeTask_ != nullptr) writeTask_->taskQuantumIs(quantum);
}

bool FileDescriptorTask::taskSuspended() const { return readTask_->taskSuspended(); }
void FileDescriptorTask::taskSuspendedIs(bool suspended) {
  taskScheduler()->sanityCheckCurrentRunningThread();
  if (suspended == taskSuspended()) return;
  const auto self = weak_from_this().lock();  // the hooks may drop the last reference
  readTask_->taskSuspendedIs(suspended);
  // A hook may have changed it back, so take the present value.
  if (writeTask_ != nullptr) writeTask_->taskSuspendedIs(taskSuspended());
  if (taskSuspended()) return;
  // Resuming gives each direction a run. Take it back where the direction is not watched.
  if (!taskWatchReadable_) readTask_->unscheduleTask();
  if (writeTask_ != nullptr && !taskWatchWritable_ && !writeRunWanted_) {
    writeTask_->unscheduleTask();
  }
}

bool FileDescriptorTask::includeInCompletedTask() const {
  return readTask_->includeInCompletedTask();
}
void FileDescriptorTask::includeInCompletedTaskIs(bool include) {
  readTask_->includeInCompletedTaskIs(include);
  if (writeTask_ != nullptr) writeTask_->includeInCompletedTaskIs(include);
}

bool FileDescriptorTask::taskForceYieldInTest() const { return readTask_->taskForceYieldInTest(); }
void FileDescriptorTask::taskForceYieldInTestIs(bool force) { taskTestYieldRatioIs(force ? 1 : 0); }
unsigned char FileDescriptorTask::taskTestYieldRatio() const {
  return readTask_->taskTestYieldRatio();
}
void FileDescriptorTask::taskTestYieldRatioIs(unsigned char ratio) {
  readTask_->taskTestYieldRatioIs(ratio);
  if (writeTask_ != nullptr) writeTask_->taskTestYieldRatioIs(ratio);
}

}  // namespace Tarvo
