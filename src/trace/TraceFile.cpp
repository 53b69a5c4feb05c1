#include "trace/TraceFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <tuple>
#include <utility>

#include "foundation/OpenFile.h"
#include "foundation/Uncancelled.h"

namespace Tarvo::Impl {

TraceFile& traceFile() {
  static auto& instance = *new TraceFile;
  return instance;
}

// Appending keeps lines whole when several processes share the file, or when it is cut meanwhile.
bool TraceFile::open(const char* name) {
  close();
  fd_ = openFile(name, O_WRONLY | O_CREAT | O_APPEND, 0666);
  if (!isOpen()) return false;
  name_ = name;
  emptyUnlessShared();
  share();
  return true;
}

// The new file is shared before the old one is let go: they may be the same one.
bool TraceFile::reopen() {
  const Uncancelled whole;
  const int now = openFile(name_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0666);
  if (now < 0) return false;
  const int before = std::exchange(fd_, now);
  share();
  ::close(before);
  return true;
}

// Everybody who has the file open keeps a shared lock on it, so an exclusive one is only for the
// first. Where the file system knows no locks, nobody is taken for another.
void TraceFile::emptyUnlessShared() {
  const bool shared = flock(fd_, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  if (!shared) std::ignore = ftruncate(fd_, 0);  // a pipe has nothing to empty
}

void TraceFile::share() {
  // Another process may be emptying it right now; a lock that stays is a stranger's.
  constexpr useconds_t moment = 1000;
  for (int tries = 10; flock(fd_, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK && tries > 0;
       --tries) {
    usleep(moment);
  }
}

void TraceFile::close() {
  if (isOpen()) ::close(fd_);
  fd_ = -1;
  name_.clear();
}

// The plain system call: a thread that is cancelled goes with its next step, not in a line.
void TraceFile::write(const char* text, std::size_t size) {
  while (size > 0) {
    const long written = syscall(SYS_write, fd_, text, size);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    text += written;
    size -= static_cast<std::size_t>(written);
  }
}

}  // namespace Tarvo::Impl
