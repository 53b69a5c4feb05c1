#ifndef TARVO_SRC_FOUNDATION_OPENFILE_H
#define TARVO_SRC_FOUNDATION_OPENFILE_H

#include <sys/types.h>

namespace Tarvo::Impl {

/// open(2) for a file that stays open. The descriptor is never 0, 1 or 2: a process that has closed
/// those, for instance to become a daemon, may redirect them later. It is close-on-exec from the
/// start, so that a child forked by another thread at this moment does not keep it. Returns -1 and
/// errno on failure.
int openFile(const char* path, int flags, mode_t mode = 0);

}  // namespace Tarvo::Impl

#endif
