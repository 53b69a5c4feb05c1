#ifndef TARVO_FILEDESCRIPTORTASK_H
#define TARVO_FILEDESCRIPTORTASK_H

/// A task that runs when its descriptor is ready.
///
/// A descriptor task has two directions, each with an inner task of its own that is scheduled, run
/// and counted like any other: the reading one, named after the task with ":read" appended, and the
/// writing one with ":write", made when it is first asked for.
/// 1. taskWatchFdIs() makes the descriptor non-blocking and watches it. Reading is watched from the
///    start, writing when taskWatchWritableIs(true) says so.
/// 2. When the loop finds the descriptor readable, the reading task is scheduled. At its turn it
///    runs taskExecuteReadable(). As long as there is something left to read when that returns, it
///    is scheduled again; so a body may read as much as it likes, or as taskShouldYield() allows.
/// 3. When the descriptor is writable, writing ceases to be watched and taskExecuteWritable() runs,
///    once. A body that could not write everything asks again.
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
/// The descriptor stays its owner's. Before it is closed, taskWatchFdDel() is to be called, or the
/// task destroyed. (A descriptor that was closed without, and whose number another control or task
/// of the thread watches, is forgotten: taskWatchFd() is -1 then. Not so for files without an
/// identity of their own, such as an eventfd; and the kernel goes on reporting a descriptor that
/// was closed while a copy of it is open.) At most one body of a task runs at a time. An end of
/// file and a broken connection make a descriptor readable until it is forgotten. So does a
/// connection that cannot be accepted for want of descriptors: stop watching for a while, or the
/// thread spins.
///
/// One descriptor may be watched by several tasks and controls of this library. Events that a
/// program adds to the event base itself are another matter: with one of those on the same
/// descriptor, reports to either may be lost.
///
/// The figures of both directions are kept, under their statistics names, after the task is gone,
/// and only so many records of that kind. A service whose tasks have a name each
/// ("client 10.0.0.7") gives all connections of a kind one statistics name, by
/// taskStatsNameIs("client"), or keeps nothing of them, by includeInCompletedTaskIs(false).
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
  /// The three below concern the direction whose body is running; outside of one they fail an
  /// assertion.
  bool taskShouldYield() const override;
  void taskWorkCountInc(unsigned long long n) override;
  void taskWorkPendingIs(unsigned int n) override;
  ~FileDescriptorTask() override;

  /// The work.
  virtual void taskExecuteReadable() = 0;
  virtual void taskExecuteWritable() = 0;

  /// For taskExecuteReadable(), when a read has just returned EAGAIN: nothing is left to read, so
  /// the kernel need not be asked after the run. Not after a read that returned less than it might:
  /// the end of a stream may be behind that, and would not be reported. Outside of that body it
  /// fails an assertion.
  void taskReadDrained();

  /// Called by the event loop, once until the direction has run: schedule the direction. An
  /// override calls these, or schedules the direction later.
  void readFdEvent(int fd) override;
  void writeFdEvent(int fd) override;

  /// Which directions are watched. Turning one off takes it off its run queue.
  bool taskWatchReadable() const { return taskWatchReadable_; }
  void taskWatchReadableIs(bool on);
  bool taskWatchWritable() const { return taskWatchWritable_; }
  void taskWatchWritableIs(bool on);
  /// The descriptor, -1 without one. Another one takes both directions off their run queues. Throws
  /// RuntimeException when it cannot be watched, and aborts when it is none.
  int taskWatchFd() const;
  void taskWatchFdIs(int fd);
  void taskWatchFdDel();

  /// Schedule a direction whatever the descriptor's state.
  void scheduleTaskReadable();
  void scheduleTaskWritable();
  bool taskScheduledReadable() const;
  bool taskScheduledWritable() const;

  /// The figures of each direction; see TaskImpl. Those of a writing task that does not exist yet
  /// are 0, and adding to them fails an assertion.
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

  /// Settings of both directions; see TaskImpl. Resuming gives a run to each direction that is
  /// watched, and to the writing one when scheduleTaskWritable() has asked for it.
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
  bool writeRunWanted_ = false;  // asked for, and neither run nor taken back
  std::shared_ptr<Impl::DeferredFdControl> fdControl_;
  std::shared_ptr<ReadTask> readTask_;
  std::shared_ptr<WriteTask> writeTask_;
  TaskImpl* executingTask_ = nullptr;
  TaskPriority taskPriority_;
  bool taskBusy_ = false;
};

}  // namespace Tarvo

#endif
