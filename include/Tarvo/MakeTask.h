#ifndef TARVO_MAKETASK_H
#define TARVO_MAKETASK_H

/// Tasks without a class: the body is a function object.
///
///     auto hello = Tarvo::makeTask(Tarvo::schedulerRootTarvo(), Tarvo::TaskPriority::normal,
///                                  "hello", [] { std::puts("hello"); });
///     hello->scheduleTask();
///
///     auto tick = Tarvo::makeTimerTask(Tarvo::schedulerRootTarvo(), Tarvo::TaskPriority::low,
///                                      "tick", [n = 0](Tarvo::TimerTask& self) mutable {
///                                        std::printf("%d\n", ++n);
///                                        self.scheduleTaskDelay(std::chrono::seconds(1));
///                                      });
///     tick->scheduleTask();
///
///     auto echo = Tarvo::makeDescriptorTask(
///         Tarvo::schedulerRootTarvo(), Tarvo::TaskPriority::high, "echo", connection,
///         [&](Tarvo::FileDescriptorTask& self) { takeIn(); self.taskWatchWritableIs(true); },
///         [&](Tarvo::FileDescriptorTask& self) { if (!giveOut()) self.taskWatchWritableIs(true);
///         });
///
/// The body takes the task, or nothing. It is moved into the task and destroyed with it; its run
/// costs what that of a class does. A body that holds its own task by shared reference keeps it for
/// ever: it is given the task instead. The task is as any other: Tarvo/Task.h, Tarvo/TimerTask.h
/// and Tarvo/FileDescriptorTask.h say what it can do, on which thread, and what is left in a forked
/// child. What a body throws leaves the event loop.

#include <concepts>
#include <memory>
#include <type_traits>
#include <utility>

#include "Tarvo/Allocator.h"
#include "Tarvo/FileDescriptorTask.h"
#include "Tarvo/String.h"
#include "Tarvo/Task.h"
#include "Tarvo/TaskTime.h"
#include "Tarvo/TimerTask.h"

namespace Tarvo {

/// What can be the body of a task of that kind.
template <typename Body, typename Kind>
concept TaskBody = std::move_constructible<Body> &&
    (std::invocable<Body&, Kind&> || std::invocable<Body&>);

namespace Impl {

template <typename Kind, TaskBody<Kind> Body>
void runBody(Body& body, Kind& task) {
  if constexpr (std::invocable<Body&, Kind&>) {
    body(task);
  } else {
    body();
  }
}

template <typename Kind, TaskBody<Kind> Body>
class FunctionTask final : public Kind {
 public:
  FunctionTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, String name,
               Body body)
      : Kind(std::move(scheduler), priority, std::move(name)), body_(std::move(body)) {}
  void taskExecute() override { runBody<Kind>(body_, *this); }

 private:
  Body body_;
};

template <TaskBody<FileDescriptorTask> OnReadable, TaskBody<FileDescriptorTask> OnWritable>
class FunctionDescriptorTask final : public FileDescriptorTask {
 public:
  FunctionDescriptorTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                         String name, OnReadable onReadable, OnWritable onWritable)
      : FileDescriptorTask(std::move(scheduler), priority, std::move(name)),
        onReadable_(std::move(onReadable)),
        onWritable_(std::move(onWritable)) {}
  void taskExecuteReadable() override { runBody<FileDescriptorTask>(onReadable_, *this); }
  void taskExecuteWritable() override { runBody<FileDescriptorTask>(onWritable_, *this); }

 private:
  OnReadable onReadable_;
  OnWritable onWritable_;
};

struct NothingToWrite {
  void operator()() const {}
};

}  // namespace Impl

/// A task that runs `body` whenever it is scheduled.
template <TaskBody<Task> Body>
std::shared_ptr<Task> makeTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                               String name, Body body) {
  using Made = Impl::FunctionTask<Task, Body>;
  return std::allocate_shared<Made>(Allocator<Made>(), std::move(scheduler), priority,
                                    std::move(name), std::move(body));
}

/// A timer task that runs `body`.
template <TaskBody<TimerTask> Body>
std::shared_ptr<TimerTask> makeTimerTask(std::shared_ptr<TaskScheduler> scheduler,
                                         TaskPriority priority, String name, Body body) {
  using Made = Impl::FunctionTask<TimerTask, Body>;
  return std::allocate_shared<Made>(Allocator<Made>(), std::move(scheduler), priority,
                                    std::move(name), std::move(body));
}

/// A descriptor task that watches `fd` and runs `onReadable` when that can be read, and
/// `onWritable` when it can be written and taskWatchWritableIs(true) was called. With -1 it watches
/// nothing yet. Throws RuntimeException when the descriptor cannot be watched, which stays the
/// caller's in any case.
template <TaskBody<FileDescriptorTask> OnReadable,
          TaskBody<FileDescriptorTask> OnWritable = Impl::NothingToWrite>
std::shared_ptr<FileDescriptorTask> makeDescriptorTask(std::shared_ptr<TaskScheduler> scheduler,
                                                       TaskPriority priority, String name, int fd,
                                                       OnReadable onReadable,
                                                       OnWritable onWritable = {}) {
  using Made = Impl::FunctionDescriptorTask<OnReadable, OnWritable>;
  const auto made =
      std::allocate_shared<Made>(Allocator<Made>(), std::move(scheduler), priority, std::move(name),
                                 std::move(onReadable), std::move(onWritable));
  made->taskWatchFdIs(fd);
  return made;
}

}  // namespace Tarvo

#endif
