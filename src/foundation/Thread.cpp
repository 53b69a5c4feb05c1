#include "Tarvo/Thread.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <locale>
#include <sstream>

#include "Tarvo/Assert.h"
#include "foundation/AtFork.h"

namespace Tarvo {

namespace {

constexpr std::size_t nameSize = 16;  // the kernel's limit, with the terminator

thread_local pid_t cachedTid = 0;                      // 0 until first asked
thread_local std::array<char, nameSize> cachedName{};  // empty until first asked or set
thread_local bool threadLocalSingletons = false;
thread_local bool singletonCreated = false;  // threadLocalSingletons may no longer change

}  // namespace

pid_t gettid() {
  if (cachedTid == 0) cachedTid = static_cast<pid_t>(syscall(SYS_gettid));
  return cachedTid;
}

// The first thread of a process has the number of the process, also in a forked child.
bool isMainThread() { return Tarvo::gettid() == getpid(); }

String threadName() {
  if (cachedName[0] == '\0') {
    const int error = pthread_getname_np(pthread_self(), cachedName.data(), cachedName.size());
    TARVO_ASSERT(error == 0, "pthread_getname_np() failed:{}", error);
  }
  return cachedName.data();
}

String currentThreadName() { return threadName(); }

void threadNameIs(const char* name) {
  if (isMainThread()) return;
  TARVO_ASSERT(name != nullptr, "a thread's name must not be null");
  const int error = pthread_setname_np(pthread_self(), name);
  TARVO_ASSERT(error == 0, "pthread_setname_np() failed:{} for name:{}", error, name);
  cachedName = {};  // zeros, so that the copy is terminated
  std::memcpy(cachedName.data(), name, strnlen(name, nameSize - 1));
}

void useThreadLocalSingletons() {
  TARVO_ASSERT(threadLocalSingletons || !singletonCreated,
               "Attempt to change threadLocalSingletons after a global singleton has already been "
               "created. Please call useThreadLocalSingletons() immediately after spawning your "
               "thread.");
  threadLocalSingletons = true;
}

bool hasThreadLocalSingletons() {
  singletonCreated = true;
  return threadLocalSingletons;
}

String toThreadIdString(std::thread::id id) {
  std::ostringstream text;
  text.imbue(std::locale::classic());  // no separators between the digits
  text << id;
  return text.str();
}

void threadSafePointerIs(bool) {}

void Impl::forgetThreadId() { cachedTid = 0; }

}  // namespace Tarvo
