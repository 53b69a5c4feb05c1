#include "Client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <utility>

namespace kv {

Client::Client(std::shared_ptr<Tarvo::TaskScheduler> scheduler, int port, const char* name)
    : FileDescriptorTask(std::move(scheduler), Tarvo::TaskPriority::normal, name),
      socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket") {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    failWith("connect");
  }
  const int on = 1;
  setsockopt(socket_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  taskWatchFdIs(socket_.get());
}

Client::~Client() { taskWatchFdDel(); }

void Client::send() {
  if (unsent_.empty()) return;
  const ssize_t put =
      ::send(socket_.get(), unsent_.data() + sent_, unsent_.size() - sent_, MSG_NOSIGNAL);
  // Of a broken connection the reader hears.
  if (put < 0 && errno != EAGAIN && errno != EINTR) return unsent_.clear();
  if (put > 0) sent_ += static_cast<std::size_t>(put);
  if (sent_ < unsent_.size()) return taskWatchWritableIs(true);
  unsent_.clear();
  sent_ = 0;
}

void Client::taskExecuteReadable() {
  static std::array<char, 64 << 10> buffer;  // one thread, and nothing stays in it
  const ssize_t got = read(socket_.get(), buffer.data(), buffer.size());
  if (got > 0) return heard({buffer.data(), static_cast<std::size_t>(got)});
  if (got == 0 || (errno != EAGAIN && errno != EINTR)) closed();
}

}  // namespace kv
