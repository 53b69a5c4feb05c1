#ifndef TARVO_SRC_PLATFORM_DEFERREDFDCONTROL_H
#define TARVO_SRC_PLATFORM_DEFERREDFDCONTROL_H

#include <functional>
#include <memory>

#include "Tarvo/detail/DeferredFdControl.h"
#include "platform/libevent/ThreadLoop.h"

namespace Tarvo::Impl {

/// `forgotten` is called when the descriptor turns out to have been closed while it was watched.
std::shared_ptr<DeferredFdControl> getDeferredFdControl(Platform::FdEventHandler* handler,
                                                        std::function<void()> forgotten);

/// Whether the thread may have served reports that it is to ask about.
inline bool anyReadsPutOff() noexcept { return threadWords->readsPutOff; }
/// A step of the root has ended, with something put off. What is as urgent as `next`, or less, may
/// wait for as many steps as it was put off for; what is more urgent is asked for now.
void stepEnds(unsigned next) noexcept;

}  // namespace Tarvo::Impl

#endif
