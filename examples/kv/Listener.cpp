#include "Listener.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <utility>

namespace kv {

using namespace std::chrono_literals;
using Tarvo::TaskPriority;

namespace {

constexpr int backlog = 511;
constexpr auto retryDelay = 100ms;

}  // namespace

Listener::Listener(const std::shared_ptr<Tarvo::TaskScheduler>& scheduler, Commands& commands,
                   double idleSeconds, int port)
    : FileDescriptorTask(scheduler, TaskPriority::high, "listener"),
      Debuggable("Kv"),
      commands_(commands),
      idleSeconds_(idleSeconds),
      socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket"),
      retry_(std::make_shared<Timer>(scheduler, "accept again", [this] { resume(); })) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int on = 1;
  setsockopt(socket_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  auto* raw = reinterpret_cast<sockaddr*>(&address);
  if (bind(socket_.get(), raw, sizeof address) != 0) failWith("bind");
  if (listen(socket_.get(), backlog) != 0) failWith("listen");
  taskWatchFdIs(socket_.get());
  TARVO_TRACE(*this, 0, "serving on port {}", this->port());
}

Listener::~Listener() { taskWatchFdDel(); }

int Listener::port() const {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  if (getsockname(socket_.get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    failWith("getsockname");
  }
  return ntohs(address.sin_port);
}

void Listener::taskExecuteReadable() {
  do {
    const int fd = accept4(socket_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) return acceptFailed(errno);
    admit(Descriptor(fd, "accept"));
  } while (!taskShouldYield());
}

void Listener::admit(Descriptor socket) {
  const int on = 1;
  setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  const auto connection =
      std::make_shared<Connection>(taskScheduler(), std::move(socket), commands_, idleSeconds_,
                                   [this](Connection& over) { left(over); });
  connections_.emplace(connection->fd(), connection);
  taskWorkCountInc(1);
  TARVO_TRACE(*this, 1, "client {}: accepted, {} connected", connection->fd(), connections_.size());
}

void Listener::acceptFailed(int error) {
  switch (error) {
    case EMFILE:
    case ENFILE:
    case ENOBUFS:
    case ENOMEM:
      return pause();
    case EBADF:
    case EINVAL:
    case ENOTSOCK:
    case EOPNOTSUPP:
      errno = error;
      failWith("accept");
    default:  // nobody there, or gone again
      return;
  }
}

// Whoever waits would be reported again and again while there is no descriptor for him.
void Listener::pause() {
  TARVO_TRACE(*this, 0, "no room for another client, {} connected", connections_.size());
  taskWatchReadableIs(false);
  retry_->scheduleTaskDelay(retryDelay);
}

void Listener::resume() {
  retry_->stopTimerTask();
  taskWatchReadableIs(true);
}

// The connection may be destroyed by this.
void Listener::left(Connection& connection) {
  connections_.erase(connection.fd());
  resume();
}

}  // namespace kv
