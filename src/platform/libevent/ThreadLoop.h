#ifndef TARVO_SRC_PLATFORM_THREADLOOP_H
#define TARVO_SRC_PLATFORM_THREADLOOP_H

#include <sys/time.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>

#include "Tarvo/detail/KeptObject.h"

struct event_base;

namespace Tarvo {

class TimerWheel;

namespace Impl {

class LoopWakes;
class PendingPolls;
class VirtualTimers;

/// The members that hot paths read and write. They are reached through one thread-local pointer
/// without a check, so it is never null: for a thread without a loop it points to `noLoop`.
struct LoopWords {
  /// Set during a notification, to be handled after it by ThreadLoop::attend().
  enum Attention : std::uint8_t { nothing = 0, sharedWithParent = 1, wheelMayBeEmpty = 2 };

  event_base* usableBase = nullptr;  // null also while the base is shared with a parent process
  double virtualOffset = 0;          // in seconds
  bool dispatching = false;
  std::uint8_t attention = nothing;

  /// Those of this thread while they hold controls, otherwise null.
  PendingPolls* pendingPolls = nullptr;
  /// Whether a root takes several steps, at whose end it polls.
  bool inSlice = false;
  /// Whether the running notification came from the kernel or from a timer. The number of those in
  /// one turn of the loop is bounded, so a callback that they request may run in the same turn.
  bool fresh = false;
  /// How many timers without delay were armed so far. libevent makes such a timer active in the
  /// next turn only; a change of this count tells a slice that one is due.
  std::uint64_t dueTimersArmed = 0;
  /// Through it other threads wake the loop. Null when nobody has asked for that yet.
  LoopWakes* wakes = nullptr;
  /// When the running loop ends. The slices of schedulers end then too.
  std::chrono::steady_clock::time_point endOfLoop = std::chrono::steady_clock::time_point::max();
};

extern constinit LoopWords noLoop;
extern thread_local constinit LoopWords* threadWords;

/// Everything that belongs to one thread's loop. Made at the first use. leFree() frees all of it
/// but the virtual time offset. Otherwise it is destroyed when the thread ends, after the
/// thread-local objects: the destructor of a pthread key does it. If a later destructor uses the
/// loop, another one is made and destroyed in its turn. On the main thread it is never destroyed,
/// since static objects may use it.
class ThreadLoop : public LoopWords {
 public:
  /// The objects of the thread that stand on the loop, in the order in which they must be
  /// destroyed.
  enum class Part : std::size_t { root, wheel, processWheel, descriptors };

  /// The calling thread's, made when there is none.
  static ThreadLoop& own() { return threadWords == &noLoop ? make() : *find(); }
  /// The same; null when there is none.
  static ThreadLoop* find() {
    return threadWords == &noLoop ? nullptr : static_cast<ThreadLoop*>(threadWords);
  }

  ThreadLoop(const ThreadLoop&) = delete;
  ThreadLoop& operator=(const ThreadLoop&) = delete;
  ~ThreadLoop();

  /// Null when there is none.
  event_base* base() const { return base_; }
  /// Who made the base. A base of the program's own is not freed when the thread ends.
  enum class Owner : std::uint8_t { loop, program };
  void baseIs(event_base* base, Owner owner);
  /// Destroys the parts and frees the base.
  void free();
  /// Rebuilds a base that is shared with a parent process.
  void rebuild();

  /// Null until the user of that part sets it.
  std::shared_ptr<void>& part(Part which) { return parts_[static_cast<std::size_t>(which)]; }

  bool onMainThread() const { return onMainThread_; }
  void onMainThreadIs(bool onMainThread) { onMainThread_ = onMainThread; }

  const timeval& offset() const { return offset_; }
  void offsetIs(const timeval& offset);

  /// Null without a base.
  VirtualTimers* virtualTimers() { return virtualTimers_.get(); }

  /// `wakes`, made when there is none, together with the base.
  std::shared_ptr<LoopWakes> wakesOfBase();

  /// Runs the base, then throws the exception that a notification left. Without a limit it also
  /// returns when only the master timers of empty wheels are pending.
  enum class Limit : std::uint8_t { some, none };
  int dispatch(Limit limit);
  /// Ends the running dispatch after the present notification, with 0. Whoever dispatches again and
  /// again asks whether the last one was stopped.
  void stop();
  bool stopped() const { return stopped_; }
  /// Keeps the exception in flight for the caller of the loop, and breaks the loop.
  void keepException() noexcept;
  /// Delays the destruction of `object` until the running loop returns: an exception may still be
  /// propagating out of it.
  void keepObject(KeptObject& place, std::shared_ptr<void> object) noexcept;

  /// Handles the bits of `attention` after a notification: rebuilds a base that is shared with a
  /// parent, or ends a loop that has nothing left to wait for.
  void attend();
  /// Whether only the master timers of empty wheels are pending. A wheel leaves its timer armed
  /// when its last timer stops, which saves a system call; the loop must not wait for it.
  bool onlyEmptyWheelsLeft();
  /// The first; the others follow by their links.
  TimerWheel* wheels() const { return wheels_; }
  void add(TimerWheel& wheel);
  void remove(TimerWheel& wheel);

 private:
  struct Dispatching;

  ThreadLoop();
  [[gnu::cold, gnu::noinline]] static ThreadLoop& make();
  static void threadEnds(void* loop);
  void releaseParts();
  void closeWakes();
  int dispatchOnce(Limit limit);
  void throwKept();
  void dropKeptObjects();

  event_base* base_ = nullptr;
  Owner owner_ = Owner::loop;
  bool onMainThread_ = false;
  bool limited_ = true;    // whether the running dispatch has a time limit
  bool stopped_ = false;   // stop() ended it
  bool finished_ = false;  // attend() ended it, as nothing was left to wait for
  timeval offset_{0, 0};
  std::exception_ptr kept_;
  KeptObject* keptObjects_ = nullptr;
  std::unique_ptr<VirtualTimers> virtualTimers_;  // bound to base_
  std::shared_ptr<LoopWakes> wakesOfBase_;
  TimerWheel* wheels_ = nullptr;  // linked through TimerWheel::nextOfThread_
  std::array<std::shared_ptr<void>, 4> parts_;
};

}  // namespace Impl

}  // namespace Tarvo

#endif
