#ifndef TARVO_THREAD_H
#define TARVO_THREAD_H

/// Facts about the calling thread.

#include <sys/types.h>

#include <thread>

#include "Tarvo/Export.h"
#include "Tarvo/String.h"

namespace Tarvo {

/// The kernel's id of the calling thread. It is cached per thread; the cache is cleared in a child
/// made by fork() (but not by vfork() or a plain clone()).
TARVO_EXPORT pid_t gettid();

/// Whether the caller is the thread that the process started with.
TARVO_EXPORT bool isMainThread();

/// The name of the calling thread, at most 15 characters.
TARVO_EXPORT String threadName();
TARVO_EXPORT String currentThreadName();

/// Names the calling thread. Does nothing on the main thread, because its name is that of the
/// process. A name of more than 15 characters fails an assertion.
TARVO_EXPORT void threadNameIs(const char* name);

/// Gives the calling thread singletons of its own. Call it before the thread first uses one; later
/// it fails an assertion. Calling it again is harmless.
TARVO_EXPORT void useThreadLocalSingletons();

/// Whether the thread has singletons of its own. The caller is about to create one, so from then on
/// useThreadLocalSingletons() can no longer change it.
TARVO_EXPORT bool hasThreadLocalSingletons();

/// The numeric value of a thread id, or "thread::id of a non-executing thread".
TARVO_EXPORT String toThreadIdString(std::thread::id id);

/// Accepted and ignored: the library's shared pointers are always safe to share.
TARVO_EXPORT void threadSafePointerIs(bool on);

}  // namespace Tarvo

#endif
