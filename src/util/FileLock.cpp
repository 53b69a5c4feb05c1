#include "Tarvo/FileLock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "Tarvo/Loco.h"
#include "Tarvo/Owners.h"
#include "Tarvo/Trace.h"
#include "Tarvo/Util.h"
#include "foundation/OpenFile.h"
#include "util/OwnedFd.h"

namespace Tarvo {

int cmd_F_OFD_SETLK() { return F_OFD_SETLK; }
int cmd_F_OFD_GETLK() { return F_OFD_GETLK; }

namespace {

/// Locks or unlocks the whole file; 0, or an errno.
int setLock(int fd, short type) {
  struct flock all {};  // l_pid must be 0 for locks of open file descriptions
  all.l_type = type;
  all.l_whence = SEEK_SET;
  return fcntl(fd, cmd_F_OFD_SETLK(), &all) == 0 ? 0 : errno;
}

/// Opens the lock file; makes it, readable and writable for everybody, when it does not exist.
/// Returns -1 and errno on failure.
int openLockFile(const char* path) {
  // Without O_CREAT first: then the umask need not change, and in a sticky directory the kernel may
  // refuse O_CREAT for a file of another user (fs.protected_regular).
  const int existing = Impl::openFile(path, O_RDWR);
  if (existing >= 0 || errno != ENOENT) return existing;
  const Platform::LocoGuard guard;  // the umask belongs to the process, so change it one at a time
  int error = 0;
  int fd = -1;
  {
    struct NoUmask {
      ~NoUmask() { umask(old); }
      mode_t old = umask(0);
    } const everybody;
    fd = Impl::openFile(path, O_RDWR | O_CREAT, 0666);
    error = errno;
  }
  errno = error;
  return fd;
}

}  // namespace

FileLock::FileLock(Platform::DebugHandler& handler, const String& directory, const String& fileName)
    : Debuggable(handler), directory_(directory) {
  TARVO_ASSERT(fileName.find('/') == String::npos, "unexpected '/' in filename: {}", fileName);
  path_ = directory.empty() ? fileName : fmt::format("{}/{}", directory, fileName);
}

FileLock::~FileLock() {
  TARVO_TRACE(*this, 5, "file:{}", path_);
  if (descriptor_ >= 0) Impl::checkInDestructor([this] { release(); });
}

bool FileLock::lock(bool reentry) {
  TARVO_TRACE(*this, 5, "file:{}", path_);
  if (reentry && ownerPid_ == getpid()) {
    TARVO_TRACE(*this, 5, "re-entry held by pid:{} on file:{}", ownerPid_, path_);
    return true;
  }
  const int made = Util::mkpath(directory_, 0777);
  TARVO_ASSERT(made == 0 || errno == EEXIST, "unexpected mkpath() error {}: {}", directory_,
               std::strerror(errno));
  Impl::OwnedFd fd(openLockFile(path_.c_str()));
  if (!fd) {
    const int error = errno;
    TARVO_TRACE(*this, 1, "error: could not open lock file:{} {}", path_, std::strerror(error));
    return false;
  }
  if (const int error = setLock(fd.get(), F_WRLCK)) {
    TARVO_ASSERT(error == EAGAIN, "unexpected error: {} file:{}", std::strerror(error), path_);
    TARVO_TRACE(*this, 1, "error: conflicting lock held on file:{}", path_);
    return false;
  }
  TARVO_ASSERT(fcntl(fd.get(), F_SETFD, FD_CLOEXEC) == 0, "unexpected error:{} file:{}",
               std::strerror(errno), path_);
  // A descriptor held before this call refers to a file that was replaced under its name; close it.
  const Impl::OwnedFd replaced(std::exchange(descriptor_, fd.release()));
  ownerPid_ = getpid();
  TARVO_TRACE(*this, 5, "acquired lock on file:{}", path_);
  return true;
}

void FileLock::release() {
  TARVO_TRACE(*this, 5, "file:{}", path_);
  TARVO_ASSERT(descriptor_ >= 0, "attempting to release a lock that is not currently held. File:{}",
               path_);
  TARVO_ASSERT(getpid() == ownerPid_, "called from child process:{} of owner pid:{}", getpid(),
               ownerPid_);
  const int error = setLock(descriptor_, F_UNLCK);
  TARVO_ASSERT(error == 0, "unexpected error: {} file:{} fd:{}", std::strerror(error), path_,
               descriptor_);
  closeFd();
  ownerPid_ = -1;
  TARVO_TRACE(*this, 5, "released lock on file:{}", path_);
}

void FileLock::closeFd() {
  TARVO_TRACE(*this, 5, "file:{} fd:{}", path_, descriptor_);
  if (descriptor_ < 0) {
    TARVO_TRACE(*this, 5, "no active fd: nothing to do");
    return;
  }
  const int fd = std::exchange(descriptor_, -1);
  const int error = Impl::OwnedFd(fd).close();
  if (error == 0) {
    TARVO_TRACE(*this, 5, "closed fd for file:{}", path_);
  } else {
    TARVO_TRACE(*this, 1, "error: {} file:{} fd:{}", std::strerror(error), path_, fd);
  }
}

String FileLock::ownerDescription() const {
  if (access(path_.c_str(), F_OK) != 0 && errno == ENOENT) return "nobody";
  auto search = OwnerSearch::ofLock(path_);
  while (search.step()) {
  }
  String text;
  for (const auto& [process, fd, inode, listening] : search.owners()) {
    if (!text.empty()) text += ", ";
    text += fmt::format("process {} ({})", process.pid(), process.title().value_or("ended"));
  }
  if (search.refused() == 0) return text.empty() ? "nobody" : text;
  if (!text.empty()) text += ", ";
  return text + fmt::format("{} could not be looked at", search.refused());
}

}  // namespace Tarvo
