#include "Responder.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>

namespace bench {

namespace {

using std::string_view;

constexpr string_view answer =
    "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 14\r\n\r\nHello, world!\n";
constexpr string_view refusal =
    "HTTP/1.1 400 Bad Request\r\nConnection: close\r\nContent-Length: 0\r\n\r\n";
constexpr string_view headEnd = "\r\n\r\n";
constexpr std::size_t headLimit = 8192;

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::exit(1);
}

/// One connection. A client that does not take its answers is dropped.
class Connection {
 public:
  explicit Connection(int fd) : fd_(fd) {}

  bool serve() {
    std::array<char, 4096> bytes;
    const ssize_t got = read(fd_, bytes.data(), bytes.size());
    if (got < 0) return errno == EAGAIN || errno == EINTR;
    if (got == 0) return false;
    in_.append(bytes.data(), static_cast<std::size_t>(got));
    std::string out;
    const bool good = answerRequests(out);
    if (out.empty()) return good;
    const ssize_t put = send(fd_, out.data(), out.size(), MSG_NOSIGNAL);
    return good && put == static_cast<ssize_t>(out.size());
  }

 private:
  bool answerRequests(std::string& out) {
    std::size_t served = 0;
    for (std::size_t end; (end = in_.find(headEnd, served)) != std::string::npos;) {
      const bool good = string_view(in_).substr(served).starts_with("GET ");
      out += good ? answer : refusal;
      if (!good) return false;
      served = end + headEnd.size();
    }
    in_.erase(0, served);
    return in_.size() < headLimit;
  }

  int fd_;
  std::string in_;
};

int listeningSocket() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* raw = reinterpret_cast<sockaddr*>(&address);
  if (fd < 0 || bind(fd, raw, size) != 0 || listen(fd, SOMAXCONN) != 0) fail("listen");
  if (getsockname(fd, raw, &size) != 0) fail("getsockname");
  std::printf("port %d\n", ntohs(address.sin_port));
  std::fflush(stdout);
  return fd;
}

}  // namespace

void respond(Watch watch) {
  const int listener = listeningSocket();
  watch(listener, [listener, watch] {
    for (int fd; (fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) >= 0;) {
      const int on = 1;
      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      watch(fd, [connection = Connection(fd)]() mutable { return connection.serve(); });
    }
    return true;
  });
}

}  // namespace bench
