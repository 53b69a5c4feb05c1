#ifndef TARVO_EXAMPLES_KV_SOCKET_H
#define TARVO_EXAMPLES_KV_SOCKET_H

/// Sockets on the loopback interface. What fails throws RuntimeException with the reason.

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
  ~Descriptor() {
    if (fd_ >= 0) close(fd_);
  }
  int get() const { return fd_; }

 private:
  int fd_;
};

/// What bind() and connect() have in common.
template <typename Call>
Descriptor socketAt(int port, const char* what, const Call& call) {
  Descriptor made(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
  const int on = 1;
  setsockopt(made.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const auto* raw = reinterpret_cast<const sockaddr*>(&address);
  if (call(made.get(), raw, socklen_t{sizeof address}) != 0) failWith(what);
  return made;
}

/// Any free port for port 0.
inline Descriptor listenOn(int port) {
  Descriptor made = socketAt(port, "bind", bind);
  if (listen(made.get(), SOMAXCONN) != 0) failWith("listen");
  return made;
}

inline Descriptor connectTo(int port) { return socketAt(port, "connect", connect); }

inline int portOf(const Descriptor& socket) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  if (getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    failWith("getsockname");
  }
  return ntohs(address.sin_port);
}

}  // namespace kv

#endif
