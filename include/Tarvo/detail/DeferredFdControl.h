#ifndef TARVO_DETAIL_DEFERREDFDCONTROL_H
#define TARVO_DETAIL_DEFERREDFDCONTROL_H

#include <cstddef>

#include "Tarvo/Export.h"
#include "Tarvo/Platform.h"

namespace Tarvo::Impl {

/// A descriptor control for handlers that note a report and read later. A level-triggered event
/// would be reported again in every turn of the loop until the handler has read, at a cost that
/// grows with the number of ready descriptors. This control reports readability once and then stays
/// quiet until it is re-armed. It also reports again when the handler threw.
class TARVO_EXPORT DeferredFdControl : public Platform::FdControl {
 public:
  /// Call after the handler has read. Whether data remains is found with poll(); polls are batched,
  /// so this one may be delayed by up to `steps` steps of the thread's root. A lower `urgency` is
  /// more urgent.
  virtual void rearmRead(std::size_t steps, unsigned urgency) noexcept = 0;
  /// Call after the handler has read until EAGAIN. Saves the poll: new data makes a new edge.
  virtual void rearmReadDrained() noexcept = 0;
  /// Whether the descriptor was closed and its number now refers to another file. (Files without an
  /// identity of their own, such as an eventfd, cannot be told apart.)
  virtual bool namesOtherFile() const = 0;
};

}  // namespace Tarvo::Impl

#endif
