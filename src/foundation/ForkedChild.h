#ifndef TARVO_SRC_FOUNDATION_FORKEDCHILD_H
#define TARVO_SRC_FOUNDATION_FORKEDCHILD_H

namespace Tarvo::Impl {

// What a forked child must put right before anything else runs in it.

/// Forgets the thread id that its only thread has inherited.
void forgetThreadId();

/// Frees the global lock where a thread that the child does not have held it.
void reviveLoco();

}  // namespace Tarvo::Impl

#endif
