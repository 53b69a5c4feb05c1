#ifndef TARVO_SRC_SERVICE_SIGNALWATCH_H
#define TARVO_SRC_SERVICE_SIGNALWATCH_H

#include "platform/libevent/LoopWakes.h"

namespace Tarvo::Impl {

/// While it lives, the process handles the signal: each is counted here and wakes `wake`. May be
/// made and destroyed on any thread; the number must be that of a signal that can be handled.
class SignalWatch {
 public:
  struct Slot;

  SignalWatch(int signal, LoopWake& wake);
  SignalWatch(const SignalWatch&) = delete;
  SignalWatch& operator=(const SignalWatch&) = delete;
  ~SignalWatch();

  int signal() const noexcept { return signal_; }
  /// Whether some came that were not taken.
  bool any() const noexcept;
  /// How many came since the last call.
  unsigned take() noexcept;

 private:
  const int signal_;
  LoopWake& wake_;
  Slot* slot_ = nullptr;
};

/// The hooks of fork(), inside holdChanges(). Signals wait meanwhile where any is watched, so that
/// none meets a child that is not ready. The child forgets all watches.
void holdSignals();
void releaseSignals();
void forgetSignalsInChild();

}  // namespace Tarvo::Impl

#endif
