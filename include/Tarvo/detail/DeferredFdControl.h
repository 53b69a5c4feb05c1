#ifndef TARVO_DETAIL_DEFERREDFDCONTROL_H
#define TARVO_DETAIL_DEFERREDFDCONTROL_H

#include <cstddef>

#include "Tarvo/Export.h"
#include "Tarvo/Platform.h"

namespace Tarvo::Impl {

/// A descriptor control for handlers that note a report and serve it later. Reported level by
/// level, a descriptor would be reported once more in every turn of the loop until it is served,
/// which costs the more the more are ready. This control reports readability once and is then quiet
/// until it is told that the report was served. It reports again what is still readable then, and
/// whatever the handler refused by throwing.
class TARVO_EXPORT DeferredFdControl : public Platform::FdControl {
 public:
  /// Tells that the report was served. To find out what is still readable the kernel must be asked,
  /// and it is cheaper to ask for several descriptors together: that may be put off until so many
  /// steps of the thread's root have ended. A lower urgency is a more urgent one.
  virtual void readServed(std::size_t steps, unsigned urgency) noexcept = 0;
  /// Tells that the report was served and nothing is left to read.
  virtual void readDrained() noexcept = 0;
  /// Whether the descriptor was closed and its number now stands for another file. (Files without
  /// an identity of their own, such as an eventfd, look all the same.)
  virtual bool namesOtherFile() const = 0;
};

}  // namespace Tarvo::Impl

#endif
