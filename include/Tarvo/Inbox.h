#ifndef TARVO_INBOX_H
#define TARVO_INBOX_H

/// A task that other threads send items to.
///
/// 1. Any thread posts an item. It is moved into the inbox's queue, under a lock that is held for
///    that only; an item is not copied, and once the queue has grown to its usual length nothing is
///    allocated.
/// 2. The inbox is scheduled on its own thread and has its turn like any other task. (A thread that
///    sleeps in the kernel is woken up for that; one that is busy is not disturbed.)
/// 3. Its body, taskExecuteItem(), is given one item after the other, until there is none left or
///    taskShouldYield() says that the quantum is used up; then the inbox schedules itself again.
///    (While items take less than a microsecond, it is asked after every fourth only.)
///    Items of one poster come in the order in which it posted them. Each is destroyed after its
///    body.
/// 4. After postEnd() nothing more is accepted. When the last item is served, taskExecuteEnd() is
///    called.
///
///     struct Lookup : Tarvo::Inbox<std::string> {
///       using Inbox::Inbox;
///       void taskExecuteItem(std::string& key) override { answer(key); }
///     };
///     auto lookups = std::make_shared<Lookup>(Tarvo::schedulerRootTarvo(),
///                                             Tarvo::TaskPriority::normal, "lookups");
///     std::thread other([keys = lookups->poster()] { keys.post("color"); keys.postEnd(); });
///     Tarvo::Platform::doEventLoop();  // returns when the other has ended its posts
///
/// While the inbox is open it keeps the loop waiting: a thread without other work sleeps until
/// items come. It is open until the end was posted and served, or it is destroyed.
///
/// A poster is a handle that may be copied, used and dropped anywhere; it does not own the inbox.
/// When that has ended, is gone, or its thread's loop is, posts are refused. (The inbox itself has
/// the same operations, for those who know that it is there.) All else belongs to its thread, as
/// with any task. Items that nobody took are destroyed with the inbox, on its thread; or when the
/// thread ends before it.
///
/// As figures, what was served is work done, and what waits is work pending. When a body throws,
/// its item counts as served; the exception leaves the event loop, and the others wait for the
/// next.
///
/// The queue keeps the memory of its longest backlog. Where posters may be faster than the inbox
/// for long, give it a capacity and use tryPost().
///
/// In a forked child the inboxes of the thread that forked go on, with copies of the items that
/// waited; those of other threads accept nothing.

#include <concepts>
#include <cstddef>
#include <functional>
#include <future>
#include <memory>
#include <type_traits>
#include <utility>

#include "Tarvo/Allocator.h"
#include "Tarvo/Export.h"
#include "Tarvo/String.h"
#include "Tarvo/Task.h"
#include "Tarvo/detail/InboxQueue.h"

namespace Tarvo {

namespace Impl {

/// What inboxes of all items have in common.
class TARVO_EXPORT InboxTask : public Task {
 public:
  ~InboxTask() override;
  void taskExecute() final;
  /// Called once, when the end was posted and everything is served.
  virtual void taskExecuteEnd();
  /// As InboxPoster's.
  void postEnd() const { queue_->end(); }

 protected:
  using MakeQueue = std::shared_ptr<InboxQueueBase>(TaskImpl& inbox, std::size_t capacity);
  InboxTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, const String& name,
            MakeQueue* makeQueue, std::size_t capacity);
  const std::shared_ptr<InboxQueueBase>& queue() const { return queue_; }

 private:
  /// Takes an item, of which there is one, and serves it.
  virtual void serveNext() = 0;
  bool serveItems(unsigned long long& served);
  void rests(unsigned long long served, std::size_t waiting);

  const std::shared_ptr<InboxQueueBase> queue_;
  bool endServed_ = false;
};

}  // namespace Impl

/// What can be posted: something that can be moved without a throw.
template <typename T>
concept InboxItem = std::is_nothrow_move_constructible_v<T> && std::is_nothrow_destructible_v<T> &&
    std::same_as<T, std::remove_cv_t<T>>;

template <InboxItem T>
class Inbox;

/// The handle of those who post. Any thread may use it.
template <InboxItem T>
class InboxPoster {
 public:
  /// Posts nowhere: everything is refused.
  InboxPoster() = default;

  /// Posts, whatever the capacity. False when the inbox accepts nothing any more; the item is then
  /// gone. Throws std::bad_alloc.
  bool post(T item) const { return queue_ != nullptr && queue_->post(item, false); }
  /// Posts unless as many items wait as the capacity says. When it is false, that or the end, the
  /// item stays the caller's, as it was.
  bool tryPost(T&& item) const { return queue_ != nullptr && queue_->post(item, true); }
  /// Ends the posts, of all posters.
  void postEnd() const {
    if (queue_ != nullptr) queue_->end();
  }

 protected:
  explicit InboxPoster(std::shared_ptr<Impl::InboxQueue<T>> queue) : queue_(std::move(queue)) {}
  const std::shared_ptr<Impl::InboxQueue<T>>& queue() const { return queue_; }

 private:
  friend class Inbox<T>;

  std::shared_ptr<Impl::InboxQueue<T>> queue_;
};

/// The task. Made with std::make_shared, as all are.
template <InboxItem T>
class Inbox : public Impl::InboxTask {
 public:
  using Poster = InboxPoster<T>;

  /// Without a capacity, tryPost() finds it never full. Throws MemoryResourceException when the
  /// thread needs a descriptor to be woken up by, and there is none.
  Inbox(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, const String& name,
        std::size_t capacity = 0)
      : InboxTask(std::move(scheduler), priority, name, makeQueue, capacity) {}

  /// The work: one item, which may be moved from.
  virtual void taskExecuteItem(T& item) = 0;

  Poster poster() const { return Poster(queue()); }
  bool post(T item) const { return queue()->post(item, false); }
  bool tryPost(T&& item) const { return queue()->post(item, true); }

 protected:
  using Queue = Impl::InboxQueue<T>;
  std::shared_ptr<Queue> queue() const {
    return std::static_pointer_cast<Queue>(InboxTask::queue());
  }

 private:
  static std::shared_ptr<Impl::InboxQueueBase> makeQueue(TaskImpl& inbox, std::size_t capacity) {
    return std::make_shared<Queue>(inbox, capacity);
  }
  void serveNext() final {
    T item = static_cast<Queue&>(*InboxTask::queue()).take();
    taskExecuteItem(item);
  }
};

/// An inbox without a class: `body` takes an item.
///
///     auto lines = Tarvo::makeInbox<std::string>(Tarvo::schedulerRootTarvo(),
///                                                Tarvo::TaskPriority::low, "lines",
///                                                [](std::string& line) { print(line); });
template <InboxItem T, std::invocable<T&> Body>
std::shared_ptr<Inbox<T>> makeInbox(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                                    const String& name, Body body, std::size_t capacity = 0) {
  class Made final : public Inbox<T> {
   public:
    Made(std::shared_ptr<TaskScheduler> itsScheduler, TaskPriority itsPriority,
         const String& itsName, std::size_t itsCapacity, Body itsBody)
        : Inbox<T>(std::move(itsScheduler), itsPriority, itsName, itsCapacity),
          body_(std::move(itsBody)) {}
    void taskExecuteItem(T& item) override { body_(item); }

   private:
    Body body_;
  };
  return std::allocate_shared<Made>(Allocator<Made>(), std::move(scheduler), priority, name,
                                    capacity, std::move(body));
}

/// The handle of those who have work done by another thread.
class TARVO_EXPORT CallPoster : public InboxPoster<std::function<void()>> {
 public:
  CallPoster() = default;

  /// Has `work` run by the inbox's thread, waits for it and returns its result, or throws what it
  /// threw. Throws RuntimeException when it is called on that thread, which would wait for itself;
  /// and when the inbox accepts nothing any more or goes before the work's turn has come.
  template <std::invocable Work>
  std::invoke_result_t<Work> callAndWait(Work work) const {
    using Result = std::invoke_result_t<Work>;
    refuseOwnThread();
    auto call = std::make_shared<std::packaged_task<Result()>>(std::move(work));
    auto result = call->get_future();
    if (!post([made = std::move(call)] { (*made)(); })) throwEnded();
    result.wait();
    try {
      return result.get();
    } catch (const std::future_error& error) {
      if (error.code() == std::future_errc::broken_promise) throwEnded();
      throw;
    }
  }

 private:
  friend class CallInbox;
  using InboxPoster::InboxPoster;

  void refuseOwnThread() const;
  [[noreturn]] void throwEnded() const;
};

/// An inbox of work for its thread: "run this over there".
///
///     auto calls = std::make_shared<Tarvo::CallInbox>(Tarvo::schedulerRootTarvo(),
///                                                     Tarvo::TaskPriority::high, "calls");
///     // on another thread, with a copy of calls->poster()
///     over.post([] { reload(); });
///     const auto open = over.callAndWait([] { return connections(); });
class TARVO_EXPORT CallInbox final : public Inbox<std::function<void()>> {
 public:
  using Poster = CallPoster;
  using Inbox::Inbox;

  CallPoster poster() const { return CallPoster(queue()); }
  void taskExecuteItem(std::function<void()>& work) override;
};

}  // namespace Tarvo

#endif
