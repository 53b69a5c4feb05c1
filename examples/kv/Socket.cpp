#include "Socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <array>

namespace kv {

Socket::Socket(int port) : descriptor_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket") {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    failWith("connect");
  }
  const int on = 1;
  setsockopt(fd(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

bool Socket::flush() {
  while (sent_ < unsent_.size()) {
    const ssize_t put = send(fd(), unsent_.data() + sent_, unsent_.size() - sent_, MSG_NOSIGNAL);
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) return errno != EAGAIN;  // of a broken connection the reader hears
    sent_ += static_cast<std::size_t>(put);
  }
  unsent_.clear();
  sent_ = 0;
  return true;
}

bool Socket::takeIn(std::string& in) {
  static std::array<char, 64 << 10> buffer;  // one thread, and nothing stays in it
  const ssize_t got = read(fd(), buffer.data(), buffer.size());
  if (got < 0) return errno == EAGAIN || errno == EINTR;
  in.append(buffer.data(), static_cast<std::size_t>(got));
  return got > 0;
}

}  // namespace kv
