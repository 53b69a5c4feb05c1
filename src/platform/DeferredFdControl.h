#ifndef TARVO_SRC_PLATFORM_DEFERREDFDCONTROL_H
#define TARVO_SRC_PLATFORM_DEFERREDFDCONTROL_H

#include <cstddef>
#include <functional>
#include <memory>

#include "Tarvo/Platform.h"

namespace Tarvo::Impl {

/// A descriptor control for handlers that note a report and serve it later. Reported level by
/// level, a descriptor would be reported once more in every turn of the loop until it is served,
/// which costs the more the more are ready. This control reports readability once and is then quiet
/// until it is told that the report was served. It reports again what is still readable then, and
/// whatever the handler refused by throwing. `forgotten` is called when the descriptor turns out to
/// have been closed while it was watched.
std::shared_ptr<Platform::FdControl> getDeferredFdControl(Platform::FdEventHandler* handler,
                                                          std::function<void()> forgotten);

/// Tells a deferred control that its report was served. To find out what is still readable the
/// kernel must be asked, and it is cheaper to ask for several descriptors together: it may be put
/// off for so many steps of the thread's schedulers. A lower urgency is a more urgent one.
void readServed(Platform::FdControl& control, std::size_t steps, unsigned urgency) noexcept;
/// Whether anything was put off, and the most urgent of that.
bool anyReadsServed() noexcept;
unsigned servedReadsUrgency() noexcept;
/// A step begins; with the last one for now, everything is asked for that was put off.
void servedReadsStep(bool last) noexcept;

/// Whether the control's descriptor was closed and its number now stands for another file. (Files
/// without an identity of their own, such as an eventfd, look all the same.)
bool namesOtherFile(const Platform::FdControl& control);

}  // namespace Tarvo::Impl

#endif
