#include "trace/TraceFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace Tarvo::Impl {

TraceFile& traceFile() {
  static auto& instance = *new TraceFile;
  return instance;
}

// Appending keeps lines whole when several processes share the file, or when it is cut meanwhile.
bool TraceFile::open(const char* name) {
  close();
  name_ = name;
  do {
    fd_ = ::open(name, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0666);
  } while (fd_ < 0 && errno == EINTR);
  if (!isOpen()) name_.clear();
  return isOpen();
}

void TraceFile::close() {
  if (isOpen()) ::close(fd_);
  fd_ = -1;
  name_.clear();
}

void TraceFile::write(const char* text, std::size_t size) {
  while (size > 0) {
    const ssize_t written = ::write(fd_, text, size);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    text += written;
    size -= static_cast<std::size_t>(written);
  }
}

}  // namespace Tarvo::Impl
