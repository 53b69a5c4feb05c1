#ifndef TARVO_SRC_PLATFORM_PENDINGPOLLS_H
#define TARVO_SRC_PLATFORM_PENDINGPOLLS_H

#include <array>
#include <cstddef>
#include <limits>

namespace Tarvo {

class LibeventFdControl;

namespace Impl {

/// The controls of this thread that are edge-triggered and whose handler has read. Data that is
/// still unread makes no new edge, so their descriptors must be polled; one poll() serves all of
/// them.
class PendingPolls {
 public:
  /// Adds a control whose poll may wait until `steps` steps have ended. With steps == 0 it and all
  /// others waiting are polled immediately. Within a slice, a control whose last poll found nothing
  /// waits for the end of the slice instead.
  void add(LibeventFdControl& control, std::size_t steps, unsigned urgency) noexcept;
  /// Call when a control was reported meanwhile, or is no longer watched.
  void remove(LibeventFdControl& control) noexcept;
  /// Counts a step. REQUIRES, as endSlice(): a control waits. Polls when the first delay has
  /// passed, or when the next task is less urgent than a waiting control.
  void endStep(unsigned next) noexcept;
  /// Polls when a control waits for this.
  void endSlice() noexcept;
  /// Polls all controls and makes the read events of the readable ones active.
  void pollAll() noexcept;
  /// Drops all controls without a poll.
  void clear() noexcept;

 private:
  // Not more than the kernel's poll() handles without allocating.
  std::array<LibeventFdControl*, 16> controls_{};
  std::size_t count_ = 0;
  std::size_t steps_ = std::numeric_limits<std::size_t>::max();  // until the first poll is due
  unsigned urgency_ = std::numeric_limits<unsigned>::max();      // of the most urgent control
  bool untilSliceEnds_ = false;
};

}  // namespace Impl

}  // namespace Tarvo

#endif
