#ifndef TARVO_TASKCONTROL_H
#define TARVO_TASKCONTROL_H

/// Timer, callback and descriptor controls whose notifications are runs of a task. A handler of
/// Tarvo/Platform.h stays as it is; the one line that asks for its control says on which scheduler,
/// at which priority and under which name it is to be called:
///
///     timer = Tarvo::Platform::getTimerControl(this);
///     timer = Tarvo::Platform::getTimerControl(this, scheduler, Tarvo::TaskPriority::low, "poll");
///
/// 1. Where a loop control would call the handler, this one schedules the task.
/// 2. When the task runs it calls the handler. The call is measured, counted and recorded in the
///    history like any run.
///
/// Differences from the controls on the loop:
/// - An exception from timeout() or callback() leaves the loop; the handler's exception operation
///   is not called. For a descriptor handler, handleFdException() is called as usual.
/// - clearEvents() forgets the descriptor, as delFd() does.
/// - A timer that has expired, and whose task has not run yet, is not armed: remainingTimeout() is
///   infinity.
/// - setWrites(true) has no effect while writes are on already.
///
/// The client owns the control through the shared pointer. The handler stays the client's and must
/// outlive the control. Everything belongs to the scheduler's thread.

#include <memory>

#include "Tarvo/Export.h"
#include "Tarvo/Platform.h"
#include "Tarvo/String.h"
#include "Tarvo/TaskScheduler.h"

namespace Tarvo::Platform {

class TARVO_EXPORT TaskTimerControl : public TimerTask, public TimerControl {
 public:
  TaskTimerControl(TimeoutHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                   TaskPriority priority, const String& name);
  ~TaskTimerControl() override;

  void taskExecute() override;
  void setTimeout(double seconds) override;
  void delTimeout() override;
  double remainingTimeout() const override;

 private:
  TimeoutHandler* handler_;
};

class TARVO_EXPORT TaskCallbackControl : public Task, public CallbackControl {
 public:
  TaskCallbackControl(CallbackHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                      TaskPriority priority, const String& name);
  ~TaskCallbackControl() override;

  void taskExecute() override;
  void requestCallback() override;
  void cancelCallback() override;
  bool pendingCallback() const override;

 private:
  CallbackHandler* handler_;
};

class TARVO_EXPORT TaskFdControl : public FileDescriptorTask, public FdControl {
 public:
  TaskFdControl(Platform::FdEventHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                TaskPriority priority, const String& name);
  ~TaskFdControl() override;

  void taskExecuteReadable() override;
  void taskExecuteWritable() override;
  void setReads(bool on) override;
  void setWrites(bool on) override;
  void setFd(int fd) override;
  void delFd() override;
  int getFd() const override;
  void clearEvents() override;

 private:
  using Notify = void (Platform::FdEventHandler::*)(int fd);
  void notify(Notify notification);

  Platform::FdEventHandler* handler_;
};

/// The controls. Each is made in one allocation, which Tarvo::Allocator counts.
TARVO_EXPORT std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler,
                                                           std::shared_ptr<TaskScheduler> scheduler,
                                                           TaskPriority priority, String name);
TARVO_EXPORT std::shared_ptr<CallbackControl> getCallbackControl(
    CallbackHandler* handler, std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
    String name);
TARVO_EXPORT std::shared_ptr<FdControl> getFdControl(Platform::FdEventHandler* handler,
                                                     std::shared_ptr<TaskScheduler> scheduler,
                                                     TaskPriority priority, String name);

}  // namespace Tarvo::Platform

#endif
