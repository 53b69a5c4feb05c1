#ifndef TARVO_LOOPKEEPER_H
#define TARVO_LOOPKEEPER_H

/// Keeps a thread's loop waiting.
///
/// doEventLoop() without a limit returns when nothing is left to wait for. What comes from other
/// threads does not count: the loop cannot know of it. While a keeper exists, the loop of the
/// thread that made it waits also with nothing else to wait for; stopEventLoop() ends it all the
/// same.
///
///     Tarvo::LoopKeeper untilTold;
///     Tarvo::Platform::doEventLoop();  // until a task calls stopEventLoop()
///
/// Made and destroyed on one thread: dropping it on another ends the process. After leFree(), and
/// when it outlives its thread's loop, it does nothing. In a forked child the keepers of the thread
/// that forked go on.

#include <memory>

#include "Tarvo/Export.h"

namespace Tarvo {

class TARVO_EXPORT LoopKeeper {
 public:
  /// Throws MemoryResourceException when the thread needs a descriptor to be woken up by, and there
  /// is none.
  LoopKeeper();
  LoopKeeper(LoopKeeper&&) noexcept;
  LoopKeeper& operator=(LoopKeeper&&) = delete;
  ~LoopKeeper();

 private:
  class Kept;
  std::unique_ptr<Kept> kept_;
};

}  // namespace Tarvo

#endif
