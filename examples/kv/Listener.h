#ifndef TARVO_EXAMPLES_KV_LISTENER_H
#define TARVO_EXAMPLES_KV_LISTENER_H

#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <memory>
#include <utility>

#include "Connection.h"
#include "Socket.h"
#include "Tarvo/TaskScheduler.h"
#include "Tarvo/Trace.h"
#include "Timer.h"

namespace kv {

/// Accepts clients on a port, any free one for port 0, and owns their connections.
class Listener : public Tarvo::FileDescriptorTask, Tarvo::Debuggable {
 public:
  Listener(Service& service, double idleSeconds, int port)
      : FileDescriptorTask(service.root, Tarvo::TaskPriority::high, "listener"),
        Debuggable("Kv"),
        service_(service),
        idleSeconds_(idleSeconds),
        socket_(listenOn(port)),
        retry_(std::make_shared<Timer>(service.root, "accept again", [this] { resume(); })) {
    taskWatchFdIs(socket_.get());
    TARVO_TRACE(*this, 0, "serving on port {}", this->port());
  }
  ~Listener() override { taskWatchFdDel(); }

  int port() const { return portOf(socket_); }

 private:
  void taskExecuteReadable() override {
    do {
      const int fd = accept4(socket_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (fd < 0) return acceptFailed();
      admit(Descriptor(fd, "accept"));
    } while (!taskShouldYield());
  }
  void taskExecuteWritable() override {}

  void admit(Descriptor socket) {
    const auto connection = std::make_shared<Connection>(service_, std::move(socket), idleSeconds_,
                                                         [this](Connection& over) { left(over); });
    connections_.emplace(connection->fd(), connection);
    taskWorkCountInc(1);
    TARVO_TRACE(*this, 1, "client {}: accepted, {} connected", connection->fd(),
                connections_.size());
  }

  void acceptFailed() {
    if (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED) return;
    // Whoever waits would be reported again and again while there is no descriptor for him.
    TARVO_TRACE(*this, 0, "accepts nobody for now, {} connected: {}", connections_.size(),
                std::strerror(errno));
    taskWatchReadableIs(false);
    retry_->scheduleTaskDelay(100ms);
  }

  void resume() {
    retry_->stopTimerTask();
    taskWatchReadableIs(true);
  }

  // The connection may be destroyed by this.
  void left(Connection& connection) {
    connections_.erase(connection.fd());
    resume();
  }

  Service& service_;
  double idleSeconds_;
  Descriptor socket_;
  std::map<int, std::shared_ptr<Connection>> connections_;
  std::shared_ptr<Timer> retry_;
};

}  // namespace kv

#endif
