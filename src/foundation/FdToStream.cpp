#include "Tarvo/FdToStream.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

#include "foundation/WithoutSigpipe.h"

namespace Tarvo {

namespace {

constexpr int longestWait = 1000;  // milliseconds

bool isWritableSoon(int fd) {
  pollfd writable{fd, POLLOUT, 0};
  const int ready = poll(&writable, 1, longestWait);
  return ready > 0 || (ready < 0 && errno == EINTR);
}

// The descriptor may be non-blocking. A slow reader must not hold up the thread for ever, so one
// write waits for a limited time only.
bool writeAll(int fd, const char* data, std::size_t size) {
  const Impl::WithoutSigpipe guard;
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
