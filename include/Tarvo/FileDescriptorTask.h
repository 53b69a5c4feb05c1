#ifndef TARVO_FILEDESCRIPTORTASK_H
#define TARVO_FILEDESCRIPTORTASK_H

/// A task that runs when its descriptor is ready.
///
/// A descriptor task has two directions. Each has an inner task of its own, which is scheduled, run
/// and counted like any other task: the reading task has ":read" appended to its name, the writing
/// task ":write". The writing task is made when it is first needed.
/// 1. taskWatchFdIs() makes the descriptor non-blocking and watches it. Reading is watched from the
///    start, writing after taskWatchWritableIs(true).
/// 2. When the loop finds the descriptor readable, the reading task is scheduled and runs
///    taskExecuteReadable(). If data is left unread when that returns, the reading task is
///    scheduled again. So a body may read as little or as much as taskShouldYield() allows.
/// 3. When the descriptor is writable, taskExecuteWritable() runs once, and writing is no longer
///    watched. A body that could not write everything calls taskWatchWritableIs(true) again.
///
///     struct Echo : Tarvo::FileDescriptorTask {
///       Echo(std::shared_ptr<Tarvo::TaskScheduler> scheduler, int fd)
///           : FileDescriptorTask(std::move(scheduler), Tarvo::TaskPriority::high, "echo") {
///         taskWatchFdIs(fd);
///       }
///       void taskExecuteReadable() override { takeIn(); taskWatchWritableIs(true); }
///       void taskExecuteWritable() override { if (!giveOut()) taskWatchWritableIs(true); }
///     };
///
/// At most one body of a task runs at a time.
///
/// The descriptor stays its owner's. Call taskWatchFdDel(), or destroy the task, before the
/// descriptor is closed. (If it was closed without that, and another control or task of the thread
/// then watches the same number, the task loses its descriptor: taskWatchFd() is -1. This cannot be
/// detected for files without an identity of their own, such as an eventfd. And while a dup() of
/// the closed descriptor is open, the kernel goes on reporting it.)
///
/// After an end of file or a broken connection a descriptor stays readable: stop watching it. It
/// also stays readable while accept() fails for want of descriptors: stop watching for a while, or
/// the thread spins.
///
/// Several tasks and controls of this library may watch one descriptor. But when the program adds
/// an event of its own for that descriptor to the event base, reports to either may be lost.
///
/// The figures of both directions are kept, under their statistics names, after the task is gone;
/// the number of such records is limited. A service whose tasks have unique names ("client
/// 10.0.0.7") should give all connections of a kind one statistics name with
/// taskStatsNameIs("client"), or keep no figures with includeInCompletedTaskIs(false).
///
/// A descriptor task is made with std::make_shared and held by shared reference; it keeps itself
/// alive while a body of it runs. Every operation belongs to the thread of the root.

#include <chrono>
#include <memory>

#include "Tarvo/Export.h"
#include "Tarvo/Platform.h"
#include "Tarvo/String.h"
#include "Tarvo/Task.h"
#include "Tarvo/TaskTime.h"

namespace Tarvo {

namespace Impl {
class DeferredFdControl;
}

class TARVO_EXPORT FileDescriptorTask : public _TaskBase, private Platform::FdEventHandler {
 public:
  FileDescriptorTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, String name);

  /// Names both directions, with ":read" and ":write" appended.
  void taskStatsNameIs(String name) override;
  /// Whether either direction is on its run queue.
  bool taskScheduled() const override;
  /// The three below apply to the direction whose body is running. Outside of a body they fail an
  /// assertion.
  bool taskShouldYield() const override;
  void taskWorkCountInc(unsigned long long n) override;
  void taskWorkPendingIs(unsigned int n) override;
  ~FileDescriptorTask() override;

  /// The work.
  virtual void taskExecuteReadable() = 0;
  virtual void taskExecuteWritable() = 0;

  /// For taskExecuteReadable(): says that a read has just returned EAGAIN, which saves a poll after
  /// the run. Do not call it after a short read: the end of the stream may follow, and would not be
  /// reported. Outside of that body it fails an assertion.
  void taskReadDrained();

  /// Called by the event loop when the descriptor is ready, once until the direction has run. They
  /// schedule the direction. An override must call these, or schedule the direction later.
  void readFdEvent(int fd) override;
  void writeFdEvent(int fd) override;

  /// Which directions are watched. Switching one off removes its task from the run queue.
  bool taskWatchReadable() const { return taskWatchReadable_; }
  void taskWatchReadableIs(bool on);
  bool taskWatchWritable() const { return taskWatchWritable_; }
  void taskWatchWritableIs(bool on);
  /// The descriptor; -1 if there is none. Setting another one removes both directions from their
  /// run queues. Throws RuntimeException when it cannot be watched; aborts when it is not an open
  /// descriptor.
  int taskWatchFd() const;
  void taskWatchFdIs(int fd);
  void taskWatchFdDel();

  /// Schedule a direction whether or not the descriptor is ready.
  void scheduleTaskReadable();
  void scheduleTaskWritable();
  bool taskScheduledReadable() const;
  bool taskScheduledWritable() const;

  /// The figures of each direction; see TaskImpl. Before the writing task is made its figures are
  /// 0, and adding to them fails an assertion.
  unsigned long long taskWorkCountReadableTotal() const;
  float taskWorkCountReadableDecayAvg() const;
  unsigned int taskWorkCountReadableHighWaterMark() const;
  unsigned int taskWorkPendingReadable() const;
  unsigned int taskWorkPendingReadableHighWaterMark() const;
  unsigned int taskRunCountReadable() const;
  void taskWorkCountReadableInc(unsigned long long n);
  void taskWorkPendingReadableIs(unsigned int n);
  unsigned long long taskWorkCountWritableTotal() const;
  float taskWorkCountWritableDecayAvg() const;
  unsigned int taskWorkCountWritableHighWaterMark() const;
  unsigned int taskWorkPendingWritable() const;
  unsigned int taskWorkPendingWritableHighWaterMark() const;
  unsigned int taskRunCountWritable() const;
  void taskWorkCountWritableInc(unsigned long long n);
  void taskWorkPendingWritableIs(unsigned int n);
  /// Of both directions together.
  unsigned int taskRunCount() const;

  /// Settings of both directions; see TaskImpl. Resuming schedules each direction that is watched,
  /// and the writing one also when scheduleTaskWritable() was called before.
  TaskPriority taskPriority() const { return taskPriority_; }
  TaskTimeDuration taskQuantum() const;
  void taskQuantumIs(TaskTimeDuration quantum);
  void taskQuantumIs(std::chrono::nanoseconds quantum) { taskQuantumIs(quantum.count()); }
  bool taskSuspended() const;
  void taskSuspendedIs(bool suspended);
  bool taskForceYieldInTest() const;
  void taskForceYieldInTestIs(bool force);
  unsigned char taskTestYieldRatio() const;
  void taskTestYieldRatioIs(unsigned char ratio);
  /// Whether the figures are kept after the task is gone; yes at first.
  bool includeInCompletedTask() const;
  void includeInCompletedTaskIs(bool include);

 private:
  class ReadWriteTaskBase;
  class ReadTask;
  class WriteTask;
  class Executing;

  void checkCreateWriteTask();
  void unscheduleDirections();
  void taskBusyIs(bool busy, TaskClock::time_point now);
  TaskImpl& executingTask() const;
  void _taskExecuteReadable();
  void _taskExecuteWritable();

  bool readDrained_ = false;
  bool taskWatchReadable_ = false;
  bool taskWatchWritable_ = false;
  bool writeRunWanted_ = false;  // scheduleTaskWritable() was called, and it has not run since
  std::shared_ptr<Impl::DeferredFdControl> fdControl_;
  std::shared_ptr<ReadTask> readTask_;
  std::shared_ptr<WriteTask> writeTask_;
  TaskImpl* executingTask_ = nullptr;  // the direction whose body is running
  bool taskBusy_ = false;
};

}  // namespace Tarvo

#endif
