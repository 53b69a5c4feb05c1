#ifndef TARVO_SRC_FOUNDATION_OPENFILE_H
#define TARVO_SRC_FOUNDATION_OPENFILE_H

#include <sys/types.h>

namespace Tarvo::Impl {

/// What open(2) does, for a file that is kept: never one of the three standard descriptors, which a
/// process may have closed and gives other files when it becomes a daemon; and close-on-exec from
/// the start, also for a child that another thread forks right now. -1 and errno when that fails.
int openFile(const char* path, int flags, mode_t mode = 0);

}  // namespace Tarvo::Impl

#endif
