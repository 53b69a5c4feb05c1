#include "Tarvo/FdToStream.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>

namespace Tarvo {

namespace {

/// Keeps a reader that is gone from killing the process: the thread does not see the signal that
/// its write raises.
class WithoutSigpipe {
 public:
  WithoutSigpipe() {
    sigemptyset(&sigpipe_);
    sigaddset(&sigpipe_, SIGPIPE);
    sigset_t pending;
    sigpending(&pending);
    wasPending_ = sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &sigpipe_, &before_);
  }
  WithoutSigpipe(const WithoutSigpipe&) = delete;
  WithoutSigpipe& operator=(const WithoutSigpipe&) = delete;
  ~WithoutSigpipe() {
    constexpr timespec now{0, 0};
    if (!wasPending_) sigtimedwait(&sigpipe_, nullptr, &now);
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }

 private:
  sigset_t sigpipe_;
  sigset_t before_;
  bool wasPending_;
};

constexpr int longestWait = 1000;  // milliseconds

bool isWritableSoon(int fd) {
  pollfd writable{fd, POLLOUT, 0};
  const int ready = poll(&writable, 1, longestWait);
  return ready > 0 || (ready < 0 && errno == EINTR);
}

bool writeAll(int fd, const char* data, std::size_t size) {
  const WithoutSigpipe guard;
  while (size > 0) {
    const ssize_t written = write(fd, data, size);
    if (written >= 0) {
      data += written;
      size -= static_cast<std::size_t>(written);
    } else if (errno == EAGAIN) {
      if (!isWritableSoon(fd)) return false;
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

}  // namespace

FdToStream::FdToStream(int fd) : std::ostream(nullptr), buffer_(fd) { rdbuf(&buffer_); }

FdToStream::~FdToStream() = default;

FdToStream::Buffer::Buffer(int fd) : fd_(fd) { reset(); }

FdToStream::Buffer::~Buffer() { Buffer::sync(); }

FdToStream::Buffer::int_type FdToStream::Buffer::overflow(int_type c) {
  if (sync() != 0) return traits_type::eof();
  if (!traits_type::eq_int_type(c, traits_type::eof())) sputc(traits_type::to_char_type(c));
  return traits_type::not_eof(c);
}

int FdToStream::Buffer::sync() {
  const auto size = static_cast<std::size_t>(pptr() - pbase());
  reset();  // before the write: if that fails, the bytes are dropped and not written again
  return size == 0 || writeAll(fd_, bytes_.data(), size) ? 0 : -1;
}

}  // namespace Tarvo
