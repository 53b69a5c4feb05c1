#ifndef TARVO_SRC_PLATFORM_DEFERREDFDCONTROL_H
#define TARVO_SRC_PLATFORM_DEFERREDFDCONTROL_H

#include <functional>
#include <memory>

#include "Tarvo/detail/DeferredFdControl.h"
#include "platform/libevent/ThreadLoop.h"

namespace Tarvo::Impl {

// How the scheduler and the descriptor controls work together. A descriptor task calls rearmRead()
// after each run of its body. With edge-triggered events that enters the control in the thread's
// PendingPolls, unless the poll is due at once. At the end of each step of the root the scheduler
// calls endRootStep(), which polls when the first of the delays has passed, or when the next task
// is less urgent than a waiting one. A control whose last poll found nothing will probably have
// nothing again: its poll waits until the slice ends, when the loop asks the kernel anyway.

/// `forgotten` is called when the descriptor turns out to have been closed while it was watched.
std::shared_ptr<DeferredFdControl> getDeferredFdControl(Platform::FdEventHandler* handler,
                                                        std::function<void()> forgotten);

/// Whether controls of the thread are waiting for a poll. Costs one load, so that the scheduler
/// can test it in every step.
inline bool anyPollPending() noexcept { return threadWords->pendingPolls != nullptr; }
/// Call at the end of a step of the root while a poll is pending. `nextUrgency` is the urgency of
/// the task that runs next: controls more urgent than that are polled now.
void endRootStep(unsigned nextUrgency) noexcept;
/// Call at the end of a slice while a poll is pending.
void endSlice() noexcept;

}  // namespace Tarvo::Impl

#endif
