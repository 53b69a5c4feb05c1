#ifndef TARVO_EXAMPLES_KV_WIRE_H
#define TARVO_EXAMPLES_KV_WIRE_H

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "Socket.h"
#include "Tarvo/TaskScheduler.h"

namespace kv {

/// One end of a connection, the service's or a client's: what came and is not used up, and what is
/// to be sent.
class Wire : public Tarvo::FileDescriptorTask {
 public:
  Wire(std::shared_ptr<Tarvo::TaskScheduler> scheduler, Tarvo::TaskPriority priority,
       Tarvo::String name, Descriptor socket)
      : FileDescriptorTask(std::move(scheduler), priority, std::move(name)),
        socket_(std::move(socket)) {
    const int on = 1;  // small messages do not wait for more
    setsockopt(fd(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    taskWatchFdIs(fd());
  }
  ~Wire() override { taskWatchFdDel(); }

  int fd() const { return socket_.get(); }

 protected:
  enum class OtherEnd : std::uint8_t { open, saidAll, gone };

  /// Reads once, to the end of `in_`.
  void receive() {
    static std::array<char, 64 << 10> buffer;  // one thread, and nothing stays in it
    const ssize_t got = read(fd(), buffer.data(), buffer.size());
    if (got > 0) in_.append(buffer.data(), static_cast<std::size_t>(got));
    if (got == 0) otherEnd_ = OtherEnd::saidAll;
    if (failed(got)) otherEnd_ = OtherEnd::gone;
  }

  /// Sends what it can of `out_`; when there is room for the rest, taskExecuteWritable() is called.
  /// Whether anything was sent.
  bool flush() {
    if (unsent() == 0) return false;
    const ssize_t put = send(fd(), out_.data() + sent_, unsent(), MSG_NOSIGNAL);
    if (put > 0) sent_ += static_cast<std::size_t>(put);
    if (failed(put)) otherEnd_ = OtherEnd::gone;
    if (unsent() == 0) {
      giveBack(out_);
      sent_ = 0;
    } else if (otherEnd_ != OtherEnd::gone) {
      taskWatchWritableIs(true);
    }
    return put > 0;
  }

  /// Empties a buffer, and gives its memory back when that is much.
  static void giveBack(std::string& buffer) {
    constexpr std::size_t kept = 1 << 20;
    buffer.clear();
    if (buffer.capacity() > kept) buffer.shrink_to_fit();
  }

  std::size_t unsent() const { return out_.size() - sent_; }
  OtherEnd otherEnd() const { return otherEnd_; }

  std::string in_;
  std::string out_;

 private:
  static bool failed(ssize_t result) { return result < 0 && errno != EAGAIN && errno != EINTR; }

  Descriptor socket_;
  std::size_t sent_ = 0;  // of out_
  OtherEnd otherEnd_ = OtherEnd::open;
};

}  // namespace kv

#endif
