#ifndef TARVO_SIGNALTASK_H
#define TARVO_SIGNALTASK_H

/// A task that runs when the process has received a signal.
///
/// 1. While the task is open, a signal of its list is taken by the library's handler, on whatever
///    thread the system delivers it to. The handler counts it and wakes the task's thread, no more:
///    it interrupts nothing but the instruction at hand, and system calls that can be restarted
///    are.
/// 2. The task is scheduled on its own thread and has its turn like any other. It runs
///    taskExecuteSignal() with the signal and how often that came since the last time; each of
///    several signals gets a run of its own, in turn.
/// 3. close(), or the end of the task, lets go of the signals. With the last task of a signal, what
///    was in force before comes back.
///
///     auto stop = Tarvo::makeSignalTask(Tarvo::schedulerRootTarvo(), Tarvo::TaskPriority::high,
///                                       "stop", {SIGTERM, SIGINT}, [&](Tarvo::SignalTask& self) {
///                                         self.close();  // a second one ends the process at once
///                                         stopListening();
///                                       });
///     Tarvo::Platform::doEventLoop();  // returns when the last request is answered
///
/// Any number of tasks, of any threads, may have the same signal: each is told. The signal must not
/// be blocked in all threads; nothing else need be prepared, before or after threads are started.
/// The system itself merges equal signals that it has not delivered yet, except real-time ones.
/// Other signals are left alone: a program may have its own handlers or a signalfd for them.
///
/// While it is open it keeps the loop waiting, so that a thread with nothing else to do sleeps
/// until a signal comes. A service that is to end when its work does closes it, as above.
///
/// The newest who sets a handler has the signal. When the program sets its own after the task was
/// made, the task is told nothing from then on (unless that handler calls the one it replaced), and
/// it stays when the task goes. A task made after that takes the signal for all tasks again, and
/// puts that handler back at the end.
///
/// A forked child starts with none: before fork() returns there, each signal has the effect again
/// that it had without tasks, and the copies of the tasks are closed, so that they keep no loop
/// waiting. No signal is lost to that: what comes meanwhile waits. In programs that the child
/// executes a signal has its default effect, or is ignored where it was.
///
/// A task is made with std::make_shared and belongs to the thread of its root. It is also closed
/// when that thread's loop is destroyed.

#include <concepts>
#include <csignal>
#include <memory>
#include <utility>
#include <vector>

#include "Tarvo/Allocator.h"
#include "Tarvo/Export.h"
#include "Tarvo/String.h"
#include "Tarvo/Task.h"

namespace Tarvo {

class TARVO_EXPORT SignalTask : public Task {
 public:
  /// Watches from now on. Throws RuntimeException, before anything was changed, when there is no
  /// signal or one that cannot be watched: a number that is none, SIGKILL, SIGSTOP, and those by
  /// which a thread is told of a fault of its own (SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP,
  /// SIGSYS). Throws MemoryResourceException when the thread needs a descriptor to be woken up by,
  /// and there is none.
  SignalTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, const String& name,
             std::vector<int> signals);
  ~SignalTask() override;

  /// The work: `signal` came `count` times, which is counted as work done.
  virtual void taskExecuteSignal(int signal, unsigned count) = 0;

  /// Lets go of the signals for good, and of the loop. What came and was not told is dropped. To be
  /// called on the task's thread; calling it again is harmless.
  void close();

  void taskExecute() final;

 private:
  struct Open;

  std::unique_ptr<Open> open_;
};

namespace Impl {

template <typename Body>
concept SignalBody = std::move_constructible<Body> &&
    (std::invocable<Body&, SignalTask&, int, unsigned> || std::invocable<Body&, int, unsigned> ||
     std::invocable<Body&, SignalTask&> || std::invocable<Body&>);

template <SignalBody Body>
class FunctionSignalTask final : public SignalTask {
 public:
  FunctionSignalTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                     const String& name, std::vector<int> signals, Body body)
      : SignalTask(std::move(scheduler), priority, name, std::move(signals)),
        body_(std::move(body)) {}
  void taskExecuteSignal(int signal, unsigned count) override {
    if constexpr (std::invocable<Body&, SignalTask&, int, unsigned>) {
      body_(*this, signal, count);
    } else if constexpr (std::invocable<Body&, int, unsigned>) {
      body_(signal, count);
    } else if constexpr (std::invocable<Body&, SignalTask&>) {
      body_(*this);
    } else {
      body_();
    }
  }

 private:
  Body body_;
};

}  // namespace Impl

/// A signal task without a class: `body` takes the task, or the signal and its count, or both in
/// that order, or nothing. It is destroyed with the task.
template <Impl::SignalBody Body>
std::shared_ptr<SignalTask> makeSignalTask(std::shared_ptr<TaskScheduler> scheduler,
                                           TaskPriority priority, const String& name,
                                           std::vector<int> signals, Body body) {
  using Made = Impl::FunctionSignalTask<Body>;
  return std::allocate_shared<Made>(Allocator<Made>(), std::move(scheduler), priority, name,
                                    std::move(signals), std::move(body));
}

}  // namespace Tarvo

#endif
