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

class VirtualTimers;

/// What is read on every road through the loop. A thread that has no loop reads the words of none.
struct LoopWords {
  /// What must be looked at when a notification is over.
  enum Attention : std::uint8_t { nothing = 0, sharedWithParent = 1, wheelMayBeEmpty = 2 };

  event_base* usableBase = nullptr;  // null also while it is shared with a parent process
  double virtualOffset = 0;          // in seconds
  bool dispatching = false;
  std::uint8_t attention = nothing;

  /// Descriptors that were read may wait to be asked about.
  bool readsPutOff = false;
  /// The present notification tells what the kernel or a timer reported. There are only so many of
  /// these in a turn of the loop, so what they ask for may still come in the same turn.
  bool fresh = false;
  /// How many timers without delay were armed, ever: what is due although it is not active yet.
  std::uint64_t dueTimersArmed = 0;
  /// When the running loop ends; schedulers do not go on beyond it.
  std::chrono::steady_clock::time_point endOfLoop = std::chrono::steady_clock::time_point::max();
};

extern constinit LoopWords noLoop;
extern thread_local constinit LoopWords* threadWords;

/// All that belongs to one thread's loop. It is made at the first use, lets go of everything but
/// its clock with leFree(), and ends after the thread's thread-local objects: a key of the thread
/// library tells when. What is used later still makes another one. On the main thread it stays for
/// the static objects, to the end of the process.
class ThreadLoop : public LoopWords {
 public:
  /// What is made on the loop for the whole thread, in the order in which it must go.
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
  /// Whose base it is: the program's own is not freed when the thread ends.
  enum class Owner : std::uint8_t { loop, program };
  void baseIs(event_base* base, Owner owner);
  /// Lets go of the parts and frees the base.
  void free();
  /// Rebuilds a base that is shared with a parent process.
  void rebuild();

  /// Empty until it is made by whoever needs it.
  std::shared_ptr<void>& part(Part which) { return parts_[static_cast<std::size_t>(which)]; }

  bool onMainThread() const { return onMainThread_; }
  void onMainThreadIs(bool onMainThread) { onMainThread_ = onMainThread; }

  const timeval& offset() const { return offset_; }
  void offsetIs(const timeval& offset);

  /// Null without a base.
  VirtualTimers* virtualTimers() { return virtualTimers_.get(); }

  /// Runs the base and throws what a notification left. Without a limit it also ends when only
  /// the master timers of empty wheels are left.
  enum class Limit : std::uint8_t { some, none };
  int dispatch(Limit limit);
  /// Keeps the exception in flight for the caller of the loop, and breaks that.
  void keepException() noexcept;
  /// Keeps an object until the loop has returned.
  void keepObject(KeptObject& place, std::shared_ptr<void> object) noexcept;

  /// Does what a notification has left to be looked at.
  void attend();
  /// Whether nothing is left but timers that no one waits for.
  bool onlyEmptyWheelsLeft();
  void add(TimerWheel& wheel);
  void remove(TimerWheel& wheel);

 private:
  struct Dispatching;

  ThreadLoop();
  [[gnu::cold, gnu::noinline]] static ThreadLoop& make();
  static void threadEnds(void* loop);
  void letGoOfParts();
  void throwKept();
  void dropKeptObjects();

  event_base* base_ = nullptr;
  Owner owner_ = Owner::loop;
  bool onMainThread_ = false;
  bool limited_ = true;    // the running dispatch
  bool finished_ = false;  // it was broken since it waited for nothing any more
  timeval offset_{0, 0};
  std::exception_ptr kept_;
  KeptObject* keptObjects_ = nullptr;
  std::unique_ptr<VirtualTimers> virtualTimers_;  // of the present base
  TimerWheel* wheels_ = nullptr;                  // linked by their own members
  std::array<std::shared_ptr<void>, 4> parts_;
};

}  // namespace Impl

}  // namespace Tarvo

#endif
