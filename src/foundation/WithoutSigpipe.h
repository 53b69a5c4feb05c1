#ifndef TARVO_SRC_FOUNDATION_WITHOUTSIGPIPE_H
#define TARVO_SRC_FOUNDATION_WITHOUTSIGPIPE_H

#include <signal.h>

#include <cerrno>

namespace Tarvo::Impl {

/// Keeps a write to a pipe or socket without a reader from killing the process: SIGPIPE is blocked
/// in this scope, and the one that a write has raised is taken back at its end. Preserves errno.
class WithoutSigpipe {
 public:
  WithoutSigpipe() {
    sigemptyset(&sigpipe_);
    sigaddset(&sigpipe_, SIGPIPE);
    sigset_t pending;
    sigpending(&pending);
    wasPending_ = sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &sigpipe_, &before_);
  }
  WithoutSigpipe(const WithoutSigpipe&) = delete;
  WithoutSigpipe& operator=(const WithoutSigpipe&) = delete;
  ~WithoutSigpipe() {
    const int error = errno;
    constexpr timespec now{0, 0};
    if (!wasPending_) sigtimedwait(&sigpipe_, nullptr, &now);
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    errno = error;
  }

 private:
  sigset_t sigpipe_;
  sigset_t before_;
  bool wasPending_;
};

}  // namespace Tarvo::Impl

#endif
