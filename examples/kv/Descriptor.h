#ifndef TARVO_EXAMPLES_KV_DESCRIPTOR_H
#define TARVO_EXAMPLES_KV_DESCRIPTOR_H

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "Tarvo/Exception.h"

namespace kv {

/// Throws what errno says of the call that has just failed.
[[noreturn]] inline void failWith(const char* what) {
  Tarvo::RuntimeException::throwException(fmt::format("{}: {}", what, std::strerror(errno)));
}

/// A descriptor that is closed with its owner.
class Descriptor {
 public:
  Descriptor(int fd, const char* what) : fd_(fd) {
    if (fd_ < 0) failWith(what);
  }
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&&) = delete;
  ~Descriptor() {
    if (fd_ >= 0) close(fd_);
  }
  int get() const { return fd_; }

 private:
  int fd_;
};

}  // namespace kv

#endif
