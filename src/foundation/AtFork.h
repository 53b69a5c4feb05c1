#ifndef TARVO_SRC_FOUNDATION_ATFORK_H
#define TARVO_SRC_FOUNDATION_ATFORK_H

/// What fork() must find whole, and what a forked child must put right.
///
/// A child has a copy of all memory and only one thread. What another thread was changing at that
/// moment stays half changed, and a lock that it held stays locked for ever. Two rules help:
/// 1. Our own registries change inside a WholeChange, which fork() waits for. (The global lock
///    itself is no part of this: it may be held for long, also by whoever waits for the fork.)
/// 2. Locks of other libraries are out of reach. A child that was forked among threads does not
///    touch them: see forkedAmongThreads().

#include "Tarvo/Export.h"

namespace Tarvo::Impl {

/// Stands around the change of a registry; REQUIRES: the global lock. Only pointers are set
/// meanwhile: nothing is allocated, freed or waited for, so that a fork waits for moments only. A
/// thread that forks inside its own change goes on with it in both processes.
class TARVO_EXPORT WholeChange {
 public:
  WholeChange();
  WholeChange(const WholeChange&) = delete;
  WholeChange& operator=(const WholeChange&) = delete;
  ~WholeChange();
};

/// Whether this process, or one that it descends from by fork(), was forked while other threads
/// may have run. Locks of other libraries may then be locked for ever.
bool forkedAmongThreads();

/// The three hooks of fork(), for what this header is about.
void holdChanges();
void releaseChanges();
void releaseChangesInChild();

/// Forgets the thread id that the child's only thread has inherited.
void forgetThreadId();

/// Frees the global lock where a thread that the child does not have held it.
void reviveLoco();

}  // namespace Tarvo::Impl

#endif
