#ifndef TARVO_SRC_UTIL_OWNEDFD_H
#define TARVO_SRC_UTIL_OWNEDFD_H

#include <unistd.h>

#include <cerrno>
#include <utility>

#include "foundation/Uncancelled.h"

namespace Tarvo::Impl {

/// Owns an open descriptor, or none. The destructor preserves errno and is no cancellation point.
class OwnedFd {
 public:
  OwnedFd() = default;
  explicit OwnedFd(int fd) : fd_(fd) {}
  OwnedFd(OwnedFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  OwnedFd& operator=(OwnedFd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~OwnedFd() {
    const int error = errno;
    if (fd_ >= 0) close();
    errno = error;
  }

  /// Closes the descriptor; returns 0 or an errno.
  int close() {
    const Uncancelled whole;
    return ::close(std::exchange(fd_, -1)) == 0 ? 0 : errno;
  }
  int release() { return std::exchange(fd_, -1); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

}  // namespace Tarvo::Impl

#endif
