#ifndef TARVO_SRC_PLATFORM_NOTIFICATION_H
#define TARVO_SRC_PLATFORM_NOTIFICATION_H

#include <cxxabi.h>

#include "platform/LibeventBase.h"

namespace Tarvo::Impl {

/// Tells a running notification whether the object that holds this was destroyed meanwhile.
class Lifeline {
 public:
  Lifeline() = default;
  Lifeline(const Lifeline&) = delete;
  Lifeline& operator=(const Lifeline&) = delete;
  ~Lifeline() {
    if (watch_ != nullptr) watch_->alive_ = false;
  }

  class Watch {
   public:
    explicit Watch(Lifeline& lifeline) : lifeline_(lifeline), outer_(lifeline.watch_) {
      lifeline_.watch_ = this;
    }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;
    ~Watch() {
      if (alive_) {
        lifeline_.watch_ = outer_;
      } else if (outer_ != nullptr) {
        outer_->alive_ = false;
      }
    }
    bool alive() const { return alive_; }

   private:
    friend class Lifeline;
    Lifeline& lifeline_;
    Watch* outer_;
    bool alive_ = true;
  };

 private:
  Watch* watch_ = nullptr;
};

/// Keeps the exception in flight for the caller of the thread's loop and breaks that loop. An
/// exception must not cross the event library's frames: it would leave the base unusable.
void keepExceptionForLoop() noexcept;

/// Runs one notification for the event library: what it throws waits for the caller of the loop.
template <typename Notification>
void runNotification(Notification notification) {
  try {
    notification();
  } catch (abi::__forced_unwind&) {
    throw;  // the thread is being cancelled, and no handler may stop that
  } catch (...) {
    keepExceptionForLoop();
  }
  leaveParentAlone();  // a notification that has forked goes on in the child too
}

}  // namespace Tarvo::Impl

#endif
