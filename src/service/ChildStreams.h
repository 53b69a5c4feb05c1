#ifndef TARVO_SRC_SERVICE_CHILDSTREAMS_H
#define TARVO_SRC_SERVICE_CHILDSTREAMS_H

#include <array>

#include "Tarvo/ChildProcess.h"
#include "util/OwnedFd.h"

namespace Tarvo {

namespace Impl {

/// Throws RuntimeException for a text that the system would cut at a zero byte.
void checkPassable(const String& text);

}  // namespace Impl

/// The files behind a child's standard descriptors, opened. None of them is a standard descriptor
/// of the parent's, so that the child can put each in its place without losing another.
class ChildStreams {
 public:
  /// Throws RuntimeException when one cannot be had.
  explicit ChildStreams(const ChildCommand& command);

  /// The child's descriptor of that number, or none when it has the parent's.
  const Impl::OwnedFd& childEnd(unsigned number) const { return childEnds_[number]; }
  std::array<Impl::OwnedFd, 3>& parentEnds() { return parentEnds_; }

 private:
  void open(unsigned number, const ChildStream& stream);
  void openFile(unsigned number, const String& path, int outputFlags);
  void openPipe(unsigned number);

  std::array<Impl::OwnedFd, 3> childEnds_;
  std::array<Impl::OwnedFd, 3> parentEnds_;  // of pipes
};

}  // namespace Tarvo

#endif
