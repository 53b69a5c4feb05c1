#ifndef TARVO_EXAMPLES_KV_CLIENT_H
#define TARVO_EXAMPLES_KV_CLIENT_H

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "Descriptor.h"
#include "Tarvo/TaskScheduler.h"

namespace kv {

/// The client's end of a connection to the service.
class Client : public Tarvo::FileDescriptorTask {
 public:
  /// Connects; throws when that fails.
  Client(std::shared_ptr<Tarvo::TaskScheduler> scheduler, int port, const char* name)
      : FileDescriptorTask(std::move(scheduler), Tarvo::TaskPriority::normal, name),
        socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket") {
    const sockaddr_in address = loopback(port);
    const auto* raw = reinterpret_cast<const sockaddr*>(&address);
    if (connect(socket_.get(), raw, sizeof address) != 0) failWith("connect");
    sendAtOnce(socket_);
    taskWatchFdIs(socket_.get());
  }
  ~Client() override { taskWatchFdDel(); }

 protected:
  virtual void heard(std::string_view bytes) = 0;
  /// Nothing more will be heard.
  virtual void closed() = 0;

  /// Sends what stands in `unsent_`, now or when the kernel takes it.
  void send() {
    const ssize_t put = ::send(socket_.get(), unsent_.data(), unsent_.size(), MSG_NOSIGNAL);
    // Of a broken connection the reader hears.
    if (put < 0 && errno != EAGAIN && errno != EINTR) return unsent_.clear();
    if (put > 0) unsent_.erase(0, static_cast<std::size_t>(put));
    if (!unsent_.empty()) taskWatchWritableIs(true);
  }

  std::string unsent_;

 private:
  void taskExecuteReadable() override {
    static std::array<char, 64 << 10> buffer;  // one thread, and nothing stays in it
    const ssize_t got = read(socket_.get(), buffer.data(), buffer.size());
    if (got > 0) return heard({buffer.data(), static_cast<std::size_t>(got)});
    if (got == 0 || (errno != EAGAIN && errno != EINTR)) closed();
  }
  void taskExecuteWritable() override { send(); }

  Descriptor socket_;
};

}  // namespace kv

#endif
