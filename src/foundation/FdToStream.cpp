#include "Tarvo/FdToStream.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

namespace Tarvo {

namespace {

bool writeAll(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t written = write(fd, data, size);
    if (written >= 0) {
      data += written;
      size -= static_cast<std::size_t>(written);
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      pollfd writable{fd, POLLOUT, 0};
      poll(&writable, 1, -1);
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
  const bool written = writeAll(fd_, pbase(), static_cast<std::size_t>(pptr() - pbase()));
  reset();
  return written ? 0 : -1;
}

}  // namespace Tarvo
