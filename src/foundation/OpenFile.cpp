#include "foundation/OpenFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace Tarvo::Impl {

int openFile(const char* path, int flags, mode_t mode) {
  int fd = -1;
  do {
    fd = ::open(path, flags | O_CLOEXEC, mode);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0 || fd > STDERR_FILENO) return fd;
  const int higher = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const int error = errno;
  ::close(fd);
  errno = error;
  return higher;
}

}  // namespace Tarvo::Impl
