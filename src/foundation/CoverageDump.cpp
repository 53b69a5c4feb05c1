/// Part of coverage builds only. gcov writes its counters at exit(), but processes that the tests
/// start often end by abort() or _exit(). These two functions replace the C library's and write the
/// counters first.

#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "Tarvo/Export.h"

extern "C" {

void __gcov_dump(void);

[[noreturn]] TARVO_EXPORT void abort() noexcept {
  __gcov_dump();
  reinterpret_cast<void (*)()>(dlsym(RTLD_NEXT, "abort"))();
  __builtin_unreachable();
}

[[noreturn]] TARVO_EXPORT void _exit(int status) {
  __gcov_dump();
  for (;;) syscall(SYS_exit_group, status);
}

}  // extern "C"
