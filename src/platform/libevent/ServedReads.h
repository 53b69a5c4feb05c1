#ifndef TARVO_SRC_PLATFORM_SERVEDREADS_H
#define TARVO_SRC_PLATFORM_SERVEDREADS_H

#include <array>
#include <cstddef>
#include <limits>

namespace Tarvo {

class LibeventFdControl;

namespace Impl {

/// The controls of this thread that are watched by edges and were served, so that somebody must ask
/// whether their descriptors are still readable. One system call asks for all of them.
class ServedReads {
 public:
  /// Enters a control that may wait until so many steps have ended; without any it, and all that
  /// wait, are asked for at once.
  void add(LibeventFdControl& control, std::size_t steps, unsigned urgency) noexcept;
  /// For a control that was reported meanwhile, or is not watched any more.
  void remove(LibeventFdControl& control) noexcept;
  bool any() const { return count_ != 0; }
  /// Asks when the time has come, or when what runs next is less urgent than one that waits.
  void stepEnds(unsigned next) noexcept;
  /// Asks, and lets the loop report what is readable.
  void ask() noexcept;
  /// Asks for nothing any more.
  void clear() noexcept;

 private:
  // As many as the kernel takes without allocating.
  std::array<LibeventFdControl*, 16> controls_{};
  std::size_t count_ = 0;
  std::size_t steps_ = std::numeric_limits<std::size_t>::max();
  unsigned urgency_ = std::numeric_limits<unsigned>::max();  // the least, which is the most urgent
};

}  // namespace Impl

}  // namespace Tarvo

#endif
