#include <fcntl.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>

#include "Tarvo/Fmt.h"
#include "Tarvo/Util.h"
#include "util/Failed.h"
#include "util/OwnedFd.h"

namespace Tarvo::Util {

namespace {

int writeAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written < 0 && errno != EINTR) return errno;
    if (written > 0) text.remove_prefix(static_cast<std::size_t>(written));
  }
  return 0;
}

/// Replaces one file of a directory. Each operation returns 0 or an errno.
class Replacement {
 public:
  explicit Replacement(const String& path) {
    const auto slash = path.find_last_of('/');
    name_ = slash == String::npos ? path : path.substr(slash + 1);
    folderPath_ = slash == String::npos ? "." : path.substr(0, slash + 1);
  }
  ~Replacement() {
    if (made_) unlinkat(folder_.get(), temporary_.c_str(), 0);
  }

  int replace(std::string_view contents, mode_t mode) {
    folder_ = Impl::OwnedFd(open(folderPath_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder_) return errno;
    if (const int error = lookAtOld()) return error;
    if (const int error = writeTemporary(contents, mode)) return error;
    return old_ ? exchange() : place();
  }

 private:
  int lookAtOld() {
    struct stat status;
    old_ = fstatat(folder_.get(), name_.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
    if (!old_) return errno == ENOENT && !name_.empty() ? 0 : errno;
    if (S_ISDIR(status.st_mode)) return EISDIR;
    return S_ISREG(status.st_mode) || S_ISLNK(status.st_mode) ? 0 : ENOTSUP;
  }

  int writeTemporary(std::string_view contents, mode_t mode) {
    static std::atomic<unsigned> count = 0;
    Impl::OwnedFd file;
    do {  // an earlier process with our number may have left files behind
      temporary_ = fmt::format(".tarvo-{}-{}", getpid(), ++count);
      file = Impl::OwnedFd(
          openat(folder_.get(), temporary_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
    } while (!file && errno == EEXIST);
    if (!file) return errno;
    made_ = true;
    if (const int error = writeAll(file.get(), contents)) return error;
    if (fsync(file.get()) != 0) return errno;
    return file.close();
  }

  /// Gives the new file its name when there was no old one. Removes it again when the directory
  /// cannot be synced.
  int place() {
    if (renameat(folder_.get(), temporary_.c_str(), folder_.get(), name_.c_str()) != 0) {
      return errno;
    }
    made_ = false;
    if (fsync(folder_.get()) == 0) return 0;
    const int error = errno;
    unlinkat(folder_.get(), name_.c_str(), 0);
    return error;
  }

  /// Exchanges the names of the old and the new file, so that the old one can be restored as long
  /// as a step may fail.
  int exchange() {
    if (const int error = swapNames()) {
      if (error == ENOENT) return place();  // the old file was removed meanwhile
      return error == EINVAL || error == ENOSYS ? placeOverOld() : error;
    }
    if (fsync(folder_.get()) == 0 && unlinkat(folder_.get(), temporary_.c_str(), 0) == 0) {
      made_ = false;
      return 0;
    }
    const int error = errno;
    swapNames();
    return error;
  }

  int swapNames() {
    const int result =
        renameat2(folder_.get(), temporary_.c_str(), folder_.get(), name_.c_str(), RENAME_EXCHANGE);
    return result == 0 ? 0 : errno;
  }

  /// For file systems without RENAME_EXCHANGE.
  int placeOverOld() {
    if (renameat(folder_.get(), temporary_.c_str(), folder_.get(), name_.c_str()) != 0) {
      return errno;
    }
    made_ = false;
    return fsync(folder_.get()) == 0 ? 0 : errno;
  }

  String name_;
  String folderPath_;
  String temporary_;
  Impl::OwnedFd folder_;
  bool old_ = false;
  bool made_ = false;  // the temporary file exists
};

}  // namespace

void fileWrite(const String& path, std::string_view contents, mode_t mode, std::error_code& error) {
  const bool named = path.find('\0') == String::npos;
  error = Impl::errorCode(named ? Replacement(path).replace(contents, mode) : EINVAL);
}

void fileWrite(const String& path, std::string_view contents, mode_t mode) {
  std::error_code error;
  fileWrite(path, contents, mode, error);
  Impl::throwOnError("write", path, error);
}

}  // namespace Tarvo::Util
