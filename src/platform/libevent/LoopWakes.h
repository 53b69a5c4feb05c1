#ifndef TARVO_SRC_PLATFORM_LOOPWAKES_H
#define TARVO_SRC_PLATFORM_LOOPWAKES_H

#include <event2/event_struct.h>

#include <atomic>
#include <memory>
#include <mutex>

#include "Tarvo/List.h"
#include "platform/libevent/WakeList.h"

namespace Tarvo::Impl {

class LoopWakes;

/// A request that other threads and signal handlers can make to a thread's loop. Held by shared
/// pointers as long as anybody may make the request.
class LoopWake : public WakeList<>::Link, public std::enable_shared_from_this<LoopWake> {
 public:
  /// A request to the calling thread's loop. Throws MemoryResourceException when the loop needs an
  /// eventfd and none can be made.
  LoopWake();
  LoopWake(const LoopWake&) = delete;
  LoopWake& operator=(const LoopWake&) = delete;
  virtual ~LoopWake();

  /// Makes woken() run soon on the thread; calls made before it runs are one. Does nothing when the
  /// thread has ended or freed its loop. May be called from any thread and from a signal handler,
  /// and preserves errno.
  void wake() noexcept {
    if (note()) wakeUp();
  }
  /// The two steps of wake(): the first tells whether the second is wanted.
  bool note() noexcept;
  void wakeUp() const noexcept;
  /// Whether the loop belongs to a thread of the parent process that does not exist in this one.
  bool ofParentProcess() const noexcept;
  /// A lock that a fork of the loop's thread holds, so that it is free in the child. It may be held
  /// for moments only. In a child of another thread it may be locked for ever.
  std::mutex& postLock() const noexcept;

 protected:
  /// Called on the thread, inside its loop or just before it runs. An exception leaves the loop.
  virtual void woken() = 0;

 private:
  friend class LoopWakes;

  const std::shared_ptr<LoopWakes> loop_;
  std::shared_ptr<LoopWake> self_;  // keeps the object alive while it is in the list
};

/// While one exists, the loop of the thread that made it does not return for want of events. Made
/// and destroyed on that thread, unless it outlives the loop.
class LoopKeeping {
 public:
  LoopKeeping();
  LoopKeeping(const LoopKeeping&) = delete;
  LoopKeeping& operator=(const LoopKeeping&) = delete;
  virtual ~LoopKeeping();

 private:
  friend class LoopWakes;
  /// Called on the thread before its loop is destroyed: no request will be served from then on.
  virtual void loopEnds() noexcept = 0;
  /// Whether the loop of a forked child waits for it as well.
  virtual bool inForkedChildToo() const noexcept { return true; }

  const std::shared_ptr<LoopWakes> loop_;
  ListLinkNode link_;
};

/// Wakes one thread's loop from outside. LoopWake objects keep it alive longer than the loop; it is
/// closed when the loop ends. All functions belong to the loop's thread, except those that
/// LoopWake::wake() calls.
class LoopWakes {
 public:
  explicit LoopWakes(event_base* base);
  LoopWakes(const LoopWakes&) = delete;
  LoopWakes& operator=(const LoopWakes&) = delete;
  ~LoopWakes();

  bool any() const { return list_.any(); }
  /// Serve all requests. Inside a slice the list stays marked "awake", as the slice looks at it
  /// again before the thread can sleep.
  void serve();
  void serveInSlice();
  /// Call at the start of a slice: marks the list "awake", so that other threads need no system
  /// call to wake this one.
  void sliceBegins();
  /// Call before the thread may sleep. True when there are no requests; otherwise serves them.
  bool fallsAsleep();
  /// For a scheduler callback that is destroyed while other threads rely on it to look at the list:
  /// makes the loop look instead.
  void lookAfterAll() noexcept;
  /// The loop waits while there are keepers.
  void add(LoopKeeping& keeper);
  void remove(LoopKeeping& keeper) noexcept;

  /// Called around a fork, for the loop of the thread that forks.
  void holdPosts() noexcept { posts_.lock(); }
  void releasePosts() noexcept { posts_.unlock(); }
  /// Called in a forked child at once: the list of its thread stays in use, and the parent's
  /// eventfd is no longer written.
  static void eraBegins(LoopWakes* ofOnlyThread) noexcept;
  /// Called in a forked child when its base has been rebuilt.
  void renew();
  /// Called before the base is freed. Drops the requests.
  void close() noexcept;

 private:
  friend class LoopWake;
  class Rest;

  static void handleWake(evutil_socket_t fd, short what, void* arg);
  void listen();
  void listenForKeepers();
  void serve(WakeList<>::Link* first);
  void wakeUp() const noexcept;

  std::mutex posts_;
  WakeList<> list_;
  std::atomic<unsigned> era_;
  std::atomic<int> fd_;
  event_base* base_;
  event event_;
  event keeping_;  // never comes; only counts
  List<LoopKeeping, &LoopKeeping::link_> keepers_;
};

}  // namespace Tarvo::Impl

#endif
