#ifndef TARVO_SRC_SERVICE_SPAWN_H
#define TARVO_SRC_SERVICE_SPAWN_H

#include "service/ChildStreams.h"

namespace Tarvo::Impl {

/// Starts the child. Throws RuntimeException with the reason; then there is none.
pid_t spawn(const ChildCommand& command, const ChildStreams& streams);

}  // namespace Tarvo::Impl

#endif
