#ifndef TARVO_BLOCKINGPOOL_H
#define TARVO_BLOCKINGPOOL_H

/// Threads for work that blocks, whose results come back as tasks.
///
/// A task must not wait: while it does, its whole thread stands still. What cannot be had without
/// waiting (names, files on slow disks, libraries that only know blocking calls) is done on a
/// thread of a pool.
/// 1. run() gives the work to the pool. It begins on the first thread that is free; the works of a
///    pool begin in the order in which they were given.
/// 2. The work runs on that thread, and what it captured is destroyed there. It must not touch
///    tasks or anything else that belongs to another thread.
/// 3. A task of the caller's scheduler, with a priority and a name, runs `done` on the caller's
///    thread and gives it the result: a std::future that is ready, whose get() returns what the
///    work has returned, or throws what it has thrown.
///
///     Tarvo::BlockingPool pool(4, "lookups");
///     auto lookup = pool.run([] { return addressesOf("localhost"); },
///                            Tarvo::schedulerRootTarvo(), Tarvo::TaskPriority::normal,
///                            "localhost", [](std::future<Addresses> result) {
///                              connectTo(result.get());
///                            });
///     Tarvo::Platform::doEventLoop();  // returns when the result was taken
///
/// The caller keeps the handle, which is that task, until `done` is called. Dropping it withdraws
/// the work when it has not begun, and otherwise forgets it: it runs to its end, and nobody is
/// told. In either case `done` is not called any more. From run() until `done` the handle keeps the
/// loop waiting. It belongs to the thread of its scheduler, as any task, and is worth nothing more
/// when that thread's loop is destroyed.
///
/// Any thread may call run(), for a scheduler of its own, and figures(). At its end the pool waits
/// for the works that run. Those that have not begun never do; their `done` is told so by a
/// RuntimeException. The pool must not be destroyed by a work of its own, nor while run() is
/// called.
///
/// The threads take no signals; traces show them under the pool's name. A forked child has none of
/// them: there run() throws RuntimeException, handles of the parent's works wait for nothing, and
/// the end of the pool does nothing.

#include <chrono>
#include <concepts>
#include <cstddef>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <type_traits>
#include <utility>

#include "Tarvo/Allocator.h"
#include "Tarvo/Export.h"
#include "Tarvo/String.h"
#include "Tarvo/Task.h"

namespace Tarvo {

namespace Impl {

template <typename Result, typename Work>
void keepPromise(std::promise<Result>& promise, Work& work) {
  try {
    if constexpr (std::is_void_v<Result>) {
      work();
      promise.set_value();
    } else {
      promise.set_value(work());
    }
  } catch (...) {
    promise.set_exception(std::current_exception());
  }
}

}  // namespace Impl

/// The handle of one work.
class TARVO_EXPORT BlockingWork : public Task {
 public:
  ~BlockingWork() override;
  void taskExecute() final;

 protected:
  BlockingWork(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, const String& name);

 private:
  friend class BlockingPool;
  struct Pending;
  virtual void taskExecuteDone() = 0;

  std::unique_ptr<Pending> pending_;
};

/// How busy a pool is.
struct TARVO_EXPORT BlockingPoolFigures {
  String name;
  unsigned threads = 0;
  std::size_t running = 0;
  std::size_t queued = 0;
  /// The longest that a work has waited for a thread, of those that have begun.
  std::chrono::nanoseconds longestWait{};

  /// "lookups: 1 of 4 threads busy, 0 queued, longest wait 0.000120 s"
  String toString() const;
};

class TARVO_EXPORT BlockingPool {
 public:
  /// Starts the threads. The name is that of each of them, of at most 15 characters; that, and no
  /// thread at all, fails an assertion. Throws RuntimeException when one cannot be had.
  BlockingPool(unsigned threads, const String& name);
  BlockingPool(const BlockingPool&) = delete;
  BlockingPool& operator=(const BlockingPool&) = delete;
  ~BlockingPool();

  template <std::invocable Work, std::invocable<std::future<std::invoke_result_t<Work>>> Done>
  [[nodiscard]] std::shared_ptr<BlockingWork> run(Work work,
                                                  std::shared_ptr<TaskScheduler> scheduler,
                                                  TaskPriority priority, const String& name,
                                                  Done done) {
    using Result = std::invoke_result_t<Work>;
    class Made final : public BlockingWork {
     public:
      Made(std::shared_ptr<TaskScheduler> itsScheduler, TaskPriority itsPriority,
           const String& itsName, std::future<Result> result, Done itsDone)
          : BlockingWork(std::move(itsScheduler), itsPriority, itsName),
            result_(std::move(result)),
            done_(std::move(itsDone)) {}

     private:
      void taskExecuteDone() override { done_(std::move(result_)); }

      std::future<Result> result_;
      Done done_;
    };
    struct Todo {
      Work work;
      std::promise<Result> promise;
    };
    auto todo = std::make_shared<Todo>(Todo{std::move(work), {}});
    auto made = std::allocate_shared<Made>(Allocator<Made>(), std::move(scheduler), priority, name,
                                           todo->promise.get_future(), std::move(done));
    start(*made, [todo = std::move(todo)](const std::exception_ptr& refused) {
      if (refused != nullptr) {
        todo->promise.set_exception(refused);
      } else {
        Impl::keepPromise(todo->promise, todo->work);
      }
    });
    return made;
  }

  BlockingPoolFigures figures() const;

 private:
  friend class BlockingWork;
  class Threads;
  struct Job;
  /// Does the work, or tells why it is not done.
  using Call = std::function<void(const std::exception_ptr& refused)>;

  void start(BlockingWork& work, Call call);

  std::unique_ptr<Threads> threads_;
};

}  // namespace Tarvo

#endif
