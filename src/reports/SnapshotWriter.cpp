#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <new>
#include <utility>

#include "Tarvo/Allocator.h"
#include "reports/StatsJson.h"

namespace Tarvo {

namespace {

constexpr std::size_t pieceBytes = 65536;

/// write(), without the signal that a pipe or socket without a reader would send.
ssize_t writeQuietly(int fd, std::string_view bytes) {
  sigset_t pipe;
  sigset_t before;
  sigset_t pending;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  sigpending(&pending);
  pthread_sigmask(SIG_BLOCK, &pipe, &before);
  const ssize_t count = write(fd, bytes.data(), bytes.size());
  const int error = errno;
  if (count < 0 && error == EPIPE && sigismember(&pending, SIGPIPE) == 0) {
    const timespec now{0, 0};
    sigtimedwait(&pipe, nullptr, &now);
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  errno = error;
  return count;
}

/// Renders as much as the descriptor takes.
class SnapshotWriter final : public FileDescriptorTask {
 public:
  using Done = std::function<void(int error, std::uint64_t bytes)>;

  SnapshotWriter(std::shared_ptr<TaskScheduler> scheduler, int fd, Done done)
      : FileDescriptorTask(std::move(scheduler), TaskPriority::low, "snapshot"),
        fd_(fcntl(fd, F_DUPFD_CLOEXEC, 0)),
        done_(std::move(done)),
        json_(*taskScheduler()->root(), "") {
    taskWatchReadableIs(false);
    const int flags = fcntl(fd_, F_GETFL);
    struct stat status;
    if (flags < 0 || fstat(fd_, &status) != 0) {
      error_ = errno;
    } else if ((flags & O_PATH) != 0) {
      error_ = EBADF;
    } else if (!S_ISREG(status.st_mode)) {  // which is always ready
      try {
        taskWatchFdIs(fd_);
      } catch (const RuntimeException&) {  // so are some devices
      }
    }
    scheduleTaskWritable();
  }
  ~SnapshotWriter() override { closeFd(); }

  void taskExecuteReadable() override {}
  void taskExecuteWritable() override {
    while (!over_) {
      try {
        if (error_ == 0) proceed();
      } catch (const std::bad_alloc&) {
        error_ = ENOMEM;  // in the middle of a record, so there is no going on
      }
      if (error_ == EAGAIN && taskWatchFd() >= 0) {
        error_ = 0;
        return taskWatchWritableIs(true);
      }
      if (error_ != 0 || (rendered_ && written_ == json_.text().size())) return finish();
      if (taskShouldYield()) return scheduleTaskWritable();
    }
  }

 private:
  void proceed() {
    while (!rendered_ && json_.text().size() < pieceBytes) {
      rendered_ = !json_.step();
      if (taskShouldYield()) break;
    }
    if (written_ == json_.text().size()) return;
    const ssize_t count = writeQuietly(fd_, json_.text().substr(written_));
    if (count < 0) {
      error_ = errno == EINTR ? 0 : errno;
      return;
    }
    written_ += static_cast<std::size_t>(count);
    bytes_ += static_cast<std::uint64_t>(count);
    taskWorkCountInc(static_cast<std::uint64_t>(count));
    if (written_ < json_.text().size() || rendered_) return;
    json_.clear();
    written_ = 0;
  }

  void finish() {
    over_ = true;
    closeFd();
    if (const auto done = std::exchange(done_, nullptr)) done(error_, bytes_);
  }

  void closeFd() {
    taskWatchFdDel();
    if (fd_ >= 0) close(std::exchange(fd_, -1));
  }

  int fd_;  // a copy: the caller may close his
  Done done_;
  StatsJson json_;
  std::size_t written_ = 0;  // of what json_ holds
  std::uint64_t bytes_ = 0;
  int error_ = 0;
  bool rendered_ = false;
  bool over_ = false;
};

}  // namespace

std::shared_ptr<_TaskBase> TaskSchedulerRoot::snapshotRenderJsonAsync(
    int fd, std::function<void(int error, std::uint64_t bytes)> done) {
  sanityCheckCurrentRunningThread();
  return std::allocate_shared<SnapshotWriter>(Allocator<SnapshotWriter>(), shared_from_this(), fd,
                                              std::move(done));
}

}  // namespace Tarvo
