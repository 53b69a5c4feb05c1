#ifndef TARVO_SRC_FOUNDATION_ATFORK_H
#define TARVO_SRC_FOUNDATION_ATFORK_H

/// The hooks of fork(): which data must be consistent at the fork, and what a child must repair.
///
/// A child has a copy of all memory but only one thread. Data that another thread was changing at
/// that moment stays half changed, and a lock that it held stays locked for ever. Two rules prevent
/// that:
/// 1. Our own registries are changed inside a WholeChange, and fork() waits for its end. (The hooks
///    do not take the global lock: a thread may hold it for long, and may even hold it while it
///    waits for the forking thread.)
/// 2. Locks inside other libraries cannot be taken before a fork. A child that was forked while
///    other threads existed does not use functions that take them: see forkedAmongThreads().

#include "Tarvo/Export.h"

namespace Tarvo::Impl {

/// Guards one change of a registry. REQUIRES: the global lock. Inside it only pointers are set; do
/// not allocate, free or wait there, so that a fork waits only for a moment. A thread that forks
/// inside its own change continues the change in both processes.
class TARVO_EXPORT WholeChange {
 public:
  WholeChange();
  WholeChange(const WholeChange&) = delete;
  WholeChange& operator=(const WholeChange&) = delete;
  ~WholeChange();
};

/// Whether this process, or an ancestor by fork(), was forked while other threads may have existed.
/// Locks inside other libraries may then be locked for ever.
bool forkedAmongThreads();

/// The hooks of fork(): before it, after it in the parent, after it in the child.
void holdChanges();
void releaseChanges();
void releaseChangesInChild();

/// Called in a child: clears the cached thread id, which is the parent's.
void forgetThreadId();

/// Called in a child: frees the global lock if a thread held it that does not exist in the child.
void reviveLoco();

}  // namespace Tarvo::Impl

#endif
