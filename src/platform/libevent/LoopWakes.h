#ifndef TARVO_SRC_PLATFORM_LOOPWAKES_H
#define TARVO_SRC_PLATFORM_LOOPWAKES_H

#include <event2/event_struct.h>

#include <atomic>
#include <memory>

#include "Tarvo/List.h"
#include "platform/libevent/WakeList.h"

namespace Tarvo::Impl {

class LoopWakes;

/// Something that other threads and signal handlers ask a thread's loop to do. It is held by shared
/// reference, as long as anybody may ask.
class LoopWake : public WakeList<>::Link, public std::enable_shared_from_this<LoopWake> {
 public:
  /// For the calling thread's loop. Throws MemoryResourceException when there is no descriptor to
  /// wake it up with.
  LoopWake();
  LoopWake(const LoopWake&) = delete;
  LoopWake& operator=(const LoopWake&) = delete;
  virtual ~LoopWake();

  /// Makes woken() run soon on the thread, once for all calls that come before it runs. Does
  /// nothing when the thread has ended or freed its loop. May be called from any thread and from a
  /// signal handler, and leaves errno alone.
  void wake() noexcept;
  /// Whether the thread is one of another process, from which this one was forked.
  bool ofParentProcess() const noexcept;

 protected:
  /// On the thread, inside its loop or just before it runs. What it throws leaves the loop.
  virtual void woken() = 0;

 private:
  friend class LoopWakes;

  const std::shared_ptr<LoopWakes> loop_;
  std::shared_ptr<LoopWake> self_;  // itself, while it waits
};

/// While one exists, the loop of the thread that made it waits, also with nothing else to wait for.
/// It is made and destroyed on that thread, but for one that outlives the loop.
class LoopKeeping {
 public:
  LoopKeeping();
  LoopKeeping(const LoopKeeping&) = delete;
  LoopKeeping& operator=(const LoopKeeping&) = delete;
  virtual ~LoopKeeping();

 private:
  friend class LoopWakes;
  /// On the thread: its loop is about to go, and nothing will be woken any more.
  virtual void loopEnds() noexcept = 0;

  const std::shared_ptr<LoopWakes> loop_;
  ListLinkNode link_;
};

/// What wakes one thread's loop from outside. A program's threads keep it longer than the loop;
/// when that ends it is closed. Everything but what LoopWake calls belongs to the thread.
class LoopWakes {
 public:
  explicit LoopWakes(event_base* base);
  LoopWakes(const LoopWakes&) = delete;
  LoopWakes& operator=(const LoopWakes&) = delete;
  ~LoopWakes();

  bool any() const { return list_.any(); }
  /// Runs all that wait. A slice stays awake: it looks again before the thread can sleep.
  void serve();
  void serveInSlice();
  /// A slice begins: until it falls asleep, or the callback after it has come, nobody needs to
  /// wake the thread up.
  void sliceBegins();
  /// True when nobody waits: the thread may sleep then. Otherwise those were served.
  bool fallsAsleep();
  /// Nobody comes to look, as it was told: somebody must be woken up.
  void lookAfterAll() noexcept;
  /// The loop waits while there are keepers.
  void add(LoopKeeping& keeper);
  void remove(LoopKeeping& keeper) noexcept;

  /// In a forked child, at once: its own list goes on, and the parent is not woken up.
  static void eraBegins(LoopWakes* ofOnlyThread) noexcept;
  /// In a forked child, as soon as its base is its own.
  void renew();
  /// Before the base goes. Who waits is forgotten.
  void close() noexcept;

 private:
  friend class LoopWake;
  class Rest;

  static void handleWake(evutil_socket_t fd, short what, void* arg);
  void listen();
  void listenForKeepers();
  void serve(WakeList<>::Link* first);
  void wakeUp() const noexcept;

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
