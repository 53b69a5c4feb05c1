#ifndef TARVO_SRC_SERVICE_WAITFOR_H
#define TARVO_SRC_SERVICE_WAITFOR_H

#include <optional>

#include "Tarvo/ChildProcess.h"
#include "util/OwnedFd.h"

namespace Tarvo::Impl {

/// How the child has ended, which nobody is told again; none while it runs.
std::optional<ChildEnd> endOf(const OwnedFd& process);

/// Whether that process is a child that nobody has waited for.
bool isChild(const OwnedFd& process);

/// Waits for a child that nobody asks about any more, on a thread of its own.
void waitAside(OwnedFd process) noexcept;

/// Kills a child and waits for it.
void endChild(pid_t pid) noexcept;

}  // namespace Tarvo::Impl

#endif
