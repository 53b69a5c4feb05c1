#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <new>
#include <utility>

#include "Tarvo/Allocator.h"
#include "foundation/Uncancelled.h"
#include "foundation/WithoutSigpipe.h"
#include "reports/StatsJson.h"
#include "reports/StatsPrometheus.h"

namespace Tarvo {

namespace {

constexpr std::size_t pieceBytes = 65536;
constexpr TaskTimeDuration snapshotQuantum = 1'000'000;

ssize_t writeQuietly(int fd, std::string_view bytes) {
  const Impl::WithoutSigpipe guard;
  return write(fd, bytes.data(), bytes.size());
}

/// The task that renders a report and writes it. It renders the next piece only when the last one
/// is written, so a slow reader costs no memory.
class SnapshotWriter final : public FileDescriptorTask {
 public:
  using Done = std::function<void(int error, std::uint64_t bytes)>;

  SnapshotWriter(std::shared_ptr<TaskScheduler> scheduler, std::unique_ptr<Report> report,
                 Done done)
      : FileDescriptorTask(std::move(scheduler), TaskPriority::low, "snapshot"),
        report_(std::move(report)),
        done_(std::move(done)) {
    taskWatchReadableIs(false);
    taskQuantumIs(snapshotQuantum);
  }
  ~SnapshotWriter() override { closeFd(); }

  /// Not in the constructor: if this throws, the destructor must run to close the copy.
  void start(int fd) {
    fd_ = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int flags = fd_ < 0 ? -1 : fcntl(fd_, F_GETFL);
    struct stat status;
    if (flags < 0 || fstat(fd_, &status) != 0) {
      error_ = errno;
    } else if ((flags & O_PATH) != 0) {
      error_ = EBADF;
    } else if (!S_ISREG(status.st_mode)) {  // epoll refuses regular files; they are always ready
      try {
        taskWatchFdIs(fd_);
      } catch (const RuntimeException&) {  // epoll refuses some devices too; write without waiting
      }
    }
    scheduleTaskWritable();
  }

  void taskExecuteReadable() override {}
  void taskExecuteWritable() override {
    while (!over_) {
      try {
        if (error_ == 0) proceed();
      } catch (const std::bad_alloc&) {
        error_ = ENOMEM;  // a record is half written; the report cannot be continued
      }
      if (error_ == EAGAIN && taskWatchFd() >= 0) {
        error_ = 0;
        return taskWatchWritableIs(true);
      }
      if (error_ != 0 || (rendered_ && written_ == report_->text().size())) return finish();
      if (taskShouldYield()) return scheduleTaskWritable();
    }
  }

 private:
  void proceed() {
    while (!rendered_ && report_->text().size() < pieceBytes) {
      rendered_ = !report_->step();
      if (taskShouldYield()) break;
    }
    if (written_ == report_->text().size()) return;
    const ssize_t count = writeQuietly(fd_, report_->text().substr(written_));
    if (count < 0) {
      error_ = errno == EINTR ? 0 : errno;
      return;
    }
    written_ += static_cast<std::size_t>(count);
    bytes_ += static_cast<std::uint64_t>(count);
    taskWorkCountInc(static_cast<std::uint64_t>(count));
    if (written_ < report_->text().size() || rendered_) return;
    report_->clear();
    written_ = 0;
  }

  void finish() {
    over_ = true;
    closeFd();
    if (const auto done = std::exchange(done_, nullptr)) done(error_, bytes_);
  }

  void closeFd() {
    const Impl::Uncancelled whole;
    taskWatchFdDel();
    if (fd_ >= 0) close(std::exchange(fd_, -1));
  }

  int fd_ = -1;  // a copy: the caller may close the original
  std::unique_ptr<Report> report_;
  Done done_;
  std::size_t written_ = 0;  // of report_->text()
  std::uint64_t bytes_ = 0;
  int error_ = 0;
  bool rendered_ = false;
  bool over_ = false;
};

std::shared_ptr<SnapshotWriter> started(TaskSchedulerRoot& root, int fd,
                                        std::unique_ptr<Report> report, SnapshotWriter::Done done) {
  const auto writer = std::allocate_shared<SnapshotWriter>(
      Allocator<SnapshotWriter>(), root.shared_from_this(), std::move(report), std::move(done));
  writer->start(fd);
  return writer;
}

}  // namespace

std::shared_ptr<FileDescriptorTask> TaskSchedulerRoot::snapshotRenderJsonAsync(
    int fd, std::function<void(int error, std::uint64_t bytes)> done) {
  sanityCheckCurrentRunningThread();
  return started(*this, fd, std::make_unique<StatsJson>(*this, ""), std::move(done));
}

std::shared_ptr<FileDescriptorTask> TaskSchedulerRoot::snapshotRenderPrometheusAsync(
    int fd, std::function<void(int error, std::uint64_t bytes)> done) {
  sanityCheckCurrentRunningThread();
  return started(*this, fd, std::make_unique<StatsPrometheus>(*this), std::move(done));
}

}  // namespace Tarvo
