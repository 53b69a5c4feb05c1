#include "service/WaitFor.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>

#include "Tarvo/Trace.h"

namespace Tarvo::Impl {

namespace {

/// waitid() with the figures, which the C library's does not give.
int waitForProcess(const OwnedFd& process, siginfo_t& info, int options, rusage* usage) {
  long result = 0;
  do {
    result = syscall(SYS_waitid, P_PIDFD, process.get(), &info, options, usage);
  } while (result != 0 && errno == EINTR);
  return result == 0 ? 0 : errno;
}

void* waitHere(void* fd) {
  const OwnedFd process(static_cast<int>(reinterpret_cast<std::intptr_t>(fd)));
  siginfo_t info;
  waitForProcess(process, info, WEXITED, nullptr);
  return nullptr;
}

/// A detached thread that takes no signals; 0, or an errno.
int startAside(void* (*run)(void*), void* argument) {
  constexpr std::size_t stackSize = 64 * 1024;
  pthread_attr_t attributes;
  sigset_t all;
  sigfillset(&all);
  int error = pthread_attr_init(&attributes);
  if (error != 0) return error;
  pthread_attr_setstacksize(&attributes, stackSize);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_attr_setsigmask_np(&attributes, &all);
  pthread_t thread;
  error = pthread_create(&thread, &attributes, run, argument);
  pthread_attr_destroy(&attributes);
  if (error == 0) pthread_setname_np(thread, "child-end");
  return error;
}

}  // namespace

std::optional<ChildEnd> endOf(const OwnedFd& process) {
  siginfo_t info{};
  ChildEnd end;
  // An error means that somebody else was told.
  if (waitForProcess(process, info, WEXITED | WNOHANG, &end.usage) != 0) return end;
  if (info.si_pid == 0) return std::nullopt;
  if (info.si_code == CLD_EXITED) {
    end.exitCode = info.si_status;
  } else {
    end.signal = info.si_status;
    end.coreDumped = info.si_code == CLD_DUMPED;
  }
  return end;
}

bool isChild(const OwnedFd& process) {
  siginfo_t info;
  return waitForProcess(process, info, WEXITED | WNOHANG | WNOWAIT, nullptr) == 0;
}

void waitAside(OwnedFd process) noexcept {
  const int fd = process.get();
  fcntl(fd, F_SETFL, 0);  // the loop has made it non-blocking, and waiting too
  const int error = startAside(waitHere, reinterpret_cast<void*>(std::intptr_t{fd}));
  if (error == 0) {
    process.release();
    return;
  }
  try {
    TARVO_TRACE(Platform::getDebugHandler("TarvoService"), 0,
                "no thread to wait for a child that was dropped: {}", strerror(error));
  } catch (...) {  // then there is no memory to say so
  }
}

void endChild(pid_t pid) noexcept {
  ::kill(pid, SIGKILL);
  while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) continue;
}

}  // namespace Tarvo::Impl
