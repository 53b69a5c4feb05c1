#include "Wire.h"

#include <array>
#include <cerrno>
#include <utility>

namespace kv {

Wire::Wire(std::shared_ptr<Tarvo::TaskScheduler> scheduler, Tarvo::TaskPriority priority,
           Tarvo::String name, Descriptor socket)
    : FileDescriptorTask(std::move(scheduler), priority, std::move(name)),
      socket_(std::move(socket)) {
  const int on = 1;  // small messages do not wait for more
  setsockopt(fd(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  taskWatchFdIs(fd());
}

void Wire::receive() {
  static std::array<char, 64 << 10> buffer;  // one thread, and nothing stays in it
  const ssize_t got = read(fd(), buffer.data(), buffer.size());
  if (got > 0) in_.append(buffer.data(), static_cast<std::size_t>(got));
  if (got == 0) otherEnd_ = OtherEnd::saidAll;
  noteFailure(got);
}

bool Wire::flush() {
  if (unsent() == 0) return false;
  const ssize_t put = send(fd(), out_.data() + sent_, unsent(), MSG_NOSIGNAL);
  noteFailure(put);
  if (put > 0) sent_ += static_cast<std::size_t>(put);
  if (unsent() == 0) {
    giveBack(out_);
    sent_ = 0;
  } else if (otherEnd_ != OtherEnd::gone) {
    taskWatchWritableIs(true);
  }
  return put > 0;
}

void Wire::noteFailure(ssize_t result) {
  if (result < 0 && errno != EAGAIN && errno != EINTR) otherEnd_ = OtherEnd::gone;
}

void giveBack(std::string& buffer) {
  constexpr std::size_t kept = 1 << 20;
  buffer.clear();
  if (buffer.capacity() > kept) buffer.shrink_to_fit();
}

}  // namespace kv
