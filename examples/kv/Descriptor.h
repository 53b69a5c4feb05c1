#ifndef TARVO_EXAMPLES_KV_DESCRIPTOR_H
#define TARVO_EXAMPLES_KV_DESCRIPTOR_H

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
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

inline sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

/// Small messages do not wait for more.
inline void sendAtOnce(const Descriptor& socket) {
  const int on = 1;
  setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

}  // namespace kv

#endif
