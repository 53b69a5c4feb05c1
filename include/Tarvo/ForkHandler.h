#ifndef TARVO_FORKHANDLER_H
#define TARVO_FORKHANDLER_H

/// Processes made by fork().
///
/// In a child, before fork() returns: isForkedChild() becomes true, the global lock is free (unless
/// the forking thread itself held it), and the thread id is the child's. A child that goes on with
/// the event loop calls leForkReinit() (Tarvo/LibeventFactory.h); then timers, callbacks and
/// descriptors that the forking thread had armed work in it, apart from the parent's. The parent is
/// not touched. (A child that was forked by a handler runs its loop only after that handler has
/// returned.)
///
/// A child can trace, make channels and exceptions, and configure, whatever the parent's other
/// threads were doing. When there were any, it keeps clear of the C library's and the unwinder's
/// locks, one of which may be locked for ever: a backtrace takes some ten microseconds, and lines
/// show local time by the offset from UTC at the fork, also when summer time begins or ends, until
/// the program's own tzset() changes the zone. A program that lives on in a child for months forks
/// before it starts threads.
///
///     if (fork() == 0) {
///       Tarvo::leForkReinit();
///       Tarvo::Platform::doEventLoop();
///       _exit(0);
///     }

#include "Tarvo/Export.h"

namespace Tarvo::Platform {

/// Registers handleFork() for every later fork(). Called once, when the library is loaded. Aborts
/// when it cannot be registered.
TARVO_EXPORT void setupHandler();

/// Marks the process as a forked child.
TARVO_EXPORT void handleFork();

TARVO_EXPORT bool isForkedChild();
/// For code that has finished rebuilding what a child must rebuild, and for tests.
TARVO_EXPORT void forkedChildIs(bool forked);

}  // namespace Tarvo::Platform

#endif
