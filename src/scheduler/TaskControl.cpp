#include "Tarvo/TaskControl.h"

#include <utility>

#include "Tarvo/Allocator.h"
#include "foundation/PassCancellation.h"

namespace Tarvo::Platform {

TaskTimerControl::TaskTimerControl(TimeoutHandler* handler,
                                   std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                                   const String& name)
    : TimerTask(std::move(scheduler), priority, name), handler_(handler) {}

TaskTimerControl::~TaskTimerControl() = default;

void TaskTimerControl::taskExecute() { handler_->timeout(); }
void TaskTimerControl::setTimeout(double seconds) { scheduleTaskDelay(seconds); }
void TaskTimerControl::delTimeout() { stopTimerTask(); }
double TaskTimerControl::remainingTimeout() const { return timerRemaining(); }

TaskCallbackControl::TaskCallbackControl(CallbackHandler* handler,
                                         std::shared_ptr<TaskScheduler> scheduler,
                                         TaskPriority priority, const String& name)
    : Task(std::move(scheduler), priority, name), handler_(handler) {}

TaskCallbackControl::~TaskCallbackControl() = default;

void TaskCallbackControl::taskExecute() { handler_->callback(); }
void TaskCallbackControl::requestCallback() { TaskImpl::scheduleTask(); }
void TaskCallbackControl::cancelCallback() { TaskImpl::unscheduleTask(); }
bool TaskCallbackControl::pendingCallback() const { return TaskImpl::taskScheduled(); }

TaskFdControl::TaskFdControl(Platform::FdEventHandler* handler,
                             std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                             const String& name)
    : FileDescriptorTask(std::move(scheduler), priority, name), handler_(handler) {}

TaskFdControl::~TaskFdControl() = default;

void TaskFdControl::taskExecuteReadable() { notify(&Platform::FdEventHandler::readFdEvent); }
void TaskFdControl::taskExecuteWritable() { notify(&Platform::FdEventHandler::writeFdEvent); }

void TaskFdControl::notify(Notify notification) {
  try {
    (handler_->*notification)(getFd());
  } catch (...) {
    Impl::passCancellation();
    if (!handler_->handleFdException(getFd())) throw;
  }
}

void TaskFdControl::setReads(bool on) { taskWatchReadableIs(on); }
void TaskFdControl::setWrites(bool on) { taskWatchWritableIs(on); }
void TaskFdControl::setFd(int fd) { taskWatchFdIs(fd); }
void TaskFdControl::delFd() { taskWatchFdDel(); }
int TaskFdControl::getFd() const { return taskWatchFd(); }
void TaskFdControl::clearEvents() { taskWatchFdDel(); }

std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler,
                                              std::shared_ptr<TaskScheduler> scheduler,
                                              TaskPriority priority, String name) {
  return std::allocate_shared<TaskTimerControl>(Allocator<TaskTimerControl>(), handler,
                                                std::move(scheduler), priority, name);
}

std::shared_ptr<CallbackControl> getCallbackControl(CallbackHandler* handler,
                                                    std::shared_ptr<TaskScheduler> scheduler,
                                                    TaskPriority priority, String name) {
  return std::allocate_shared<TaskCallbackControl>(Allocator<TaskCallbackControl>(), handler,
                                                   std::move(scheduler), priority, name);
}

std::shared_ptr<FdControl> getFdControl(Platform::FdEventHandler* handler,
                                        std::shared_ptr<TaskScheduler> scheduler,
                                        TaskPriority priority, String name) {
  return std::allocate_shared<TaskFdControl>(Allocator<TaskFdControl>(), handler,
                                             std::move(scheduler), priority, name);
}

}  // namespace Tarvo::Platform
