#ifndef TARVO_FORKHANDLER_H
#define TARVO_FORKHANDLER_H

/// Processes made by fork().
///
/// In the child, before fork() returns: isForkedChild() becomes true, the global lock is free
/// (unless the forking thread itself held it), and the thread id is the child's. A child that
/// continues with the event loop calls leForkReinit() (Tarvo/LibeventFactory.h). Then the timers,
/// callbacks and descriptors that the forking thread had armed work in the child too, independently
/// of the parent's. (A child that was forked inside a handler can run its loop only after that
/// handler has returned.)
///
/// The child can trace, make channels and exceptions, and configure, whatever the parent's other
/// threads were doing. If the parent had other threads, a lock inside the C library or the unwinder
/// may stay locked for ever in the child, so the library does not use those there. This has two
/// effects: a backtrace takes some ten microseconds; and trace lines show local time with the UTC
/// offset of the moment of the fork, also after a change of summer time, until the program's own
/// tzset() changes the zone. A daemon that runs for months should fork before it starts threads.
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
/// For code that has rebuilt its own state in the child, and for tests.
TARVO_EXPORT void forkedChildIs(bool forked);

}  // namespace Tarvo::Platform

#endif
