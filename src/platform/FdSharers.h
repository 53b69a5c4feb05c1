#ifndef TARVO_SRC_PLATFORM_FDSHARERS_H
#define TARVO_SRC_PLATFORM_FDSHARERS_H

namespace Tarvo {

class LibeventFdControl;

/// The controls of this thread that watch one descriptor. The event library registers a descriptor
/// with the kernel once, by edges or by levels, and keeps that registration as long as an event is
/// left; so they must agree, and one whose descriptor was closed behind its back must go.
class FdSharers {
 public:
  /// Enters a control that has got its descriptor and watches nothing yet.
  static void join(LibeventFdControl& control);
  static void leave(LibeventFdControl& control) noexcept;
  static bool alone(const LibeventFdControl& control);

 private:
  static void agree(LibeventFdControl& head);
};

}  // namespace Tarvo

#endif
