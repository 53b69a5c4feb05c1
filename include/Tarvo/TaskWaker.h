#ifndef TARVO_TASKWAKER_H
#define TARVO_TASKWAKER_H

/// A handle by which other threads, and signal handlers, schedule a task.
///
/// All else about a task belongs to its own thread. A waker is the exception: it may be copied,
/// passed on, used and dropped anywhere.
/// 1. On the task's thread a waker is made.
/// 2. wake() notes the task. When its thread may be waiting in the kernel, it is woken up as well;
///    a thread that is busy sees the note after the present run, without a system call of either.
/// 3. The task's thread schedules the task, which then has its turn like any other. Wakes that come
///    before that are one. What was written before a wake() is seen by the run that follows.
///
///     struct Reload : Tarvo::Task {
///       using Task::Task;
///       void taskExecute() override { readConfiguration(); }
///     };
///     auto reload = std::make_shared<Reload>(Tarvo::schedulerRootTarvo(),
///                                            Tarvo::TaskPriority::low, "reload");
///     static Tarvo::TaskWaker waker;
///     waker = Tarvo::TaskWaker(*reload);
///     std::signal(SIGHUP, [](int) { waker.wake(); });
///
/// A wake is as good as scheduleTask(): a task that is suspended gets its run when it is resumed, a
/// timer task does not wait for its timer any more. In virtual time, those who were woken run
/// before the next jump.
/// A waker does not own its task, nor keep the loop waiting for it: doEventLoop() returns when
/// nothing else is left to wait for, and a wake that comes later is served by the next one.
///
/// In a forked child the wakers of the thread that forked go on, with the child's own copy of the
/// tasks; what was noted at the fork runs in both processes. Wakers of other threads do nothing.

#include <memory>

#include "Tarvo/Export.h"

namespace Tarvo {

class FileDescriptorTask;
class TaskImpl;

namespace Impl {
class LoopWake;
}

class TARVO_EXPORT TaskWaker {
 public:
  enum class Direction : bool { read, write };

  /// Wakes nobody.
  TaskWaker();
  /// Of a task or a timer task. To be called on its thread, and not in its constructor: throws
  /// std::bad_weak_ptr when nobody shares it yet. Throws MemoryResourceException when the thread
  /// needs a descriptor to be woken up by, and there is none.
  explicit TaskWaker(TaskImpl& task);
  /// The same, of one direction of a descriptor task. Reading is not scheduled while it is not
  /// watched.
  TaskWaker(FileDescriptorTask& task, Direction direction);

  /// Schedules the task soon. Does nothing when the task is gone, or its thread has ended or called
  /// leFree(). Any thread may call it, on a copy of its own or on a shared one that nobody changes
  /// meanwhile; so may a signal handler, where it allocates nothing, waits for nothing and leaves
  /// errno alone.
  void wake() const noexcept;

 private:
  explicit TaskWaker(std::shared_ptr<Impl::LoopWake> wake);

  std::shared_ptr<Impl::LoopWake> wake_;
};

}  // namespace Tarvo

#endif
