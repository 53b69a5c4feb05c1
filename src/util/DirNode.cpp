#include "Tarvo/DirNode.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "Tarvo/Exception.h"
#include "Tarvo/Trace.h"

namespace Tarvo {

DirNode::DirNode(Platform::DebugHandler& handler) : Debuggable(handler) {}

DirNode::DirNode(Platform::DebugHandler& handler, const String& path,
                 std::shared_ptr<DirNode> parent)
    : Debuggable(handler), parent_(std::move(parent)), path_(path) {
  TARVO_TRACE(*this, 9, "path: {}", path_);
}

DirNode::DirNode(const DirNode& other) = default;
DirNode::DirNode(DirNode&& other)
    : Debuggable(other),
      stream_(other.stream_),
      parent_(std::move(other.parent_)),
      path_(other.path_) {}

DirNode::~DirNode() {
  TARVO_TRACE(*this, 9, "path: {}", path_);
  if (stream_ == nullptr || closedir(stream_) == 0) return;
  TARVO_TRACE(*this, 1, "failed to close {} errno: {}", path_, std::strerror(errno));
}

void DirNode::pathIs(const String& path) {
  TARVO_TRACE(*this, 9, "path: {}", path);
  path_ = path;
  openDir();
}

void DirNode::openDir() {
  if (stream_ != nullptr && closedir(std::exchange(stream_, nullptr)) != 0) {
    TARVO_TRACE(*this, 1, "failed to close {} before reopening. errno: {}", path_,
                std::strerror(errno));
  }
  stream_ = opendir(path_.c_str());
  if (stream_ != nullptr) return;
  const int error = errno;
  const bool expected = error == ENOENT || error == EACCES || error == ENOTDIR;
  TARVO_TRACE(*this, expected ? 9 : 1, "failed to open {} errno: {}", path_, std::strerror(error));
}

dirent* DirNode::readEntry() const {
  TARVO_TRACE(*this, 9, "path: {}", path_);
  if (stream_ == nullptr) {
    TARVO_TRACE(*this, 5, "cannot read {} because the directory is not open", path_);
    return nullptr;
  }
  errno = 0;
  dirent* entry = readdir(stream_);
  if (entry != nullptr || errno == 0) return entry;
  const auto message = fmt::format("failed to read {} errno: {}", path_, std::strerror(errno));
  TARVO_TRACE(*this, 0, "{}", message);
  RuntimeException::throwException(message);
}

void DirNode::rewind() const {
  TARVO_TRACE(*this, 9, "path: {}", path_);
  if (stream_ != nullptr) return rewinddir(stream_);
  const auto message = fmt::format("cannot rewind {} because the directory is not open", path_);
  TARVO_TRACE(*this, 0, "{}", message);
  RuntimeException::throwException(message);
}

std::vector<String> DirNode::findFiles(const String& extension) const {
  TARVO_TRACE(*this, 9, "path: {} extension: {}", path_, extension);
  if (stream_ == nullptr) {
    const auto message = fmt::format("cannot find {} files in {} because the directory is not open",
                                     extension, path_);
    TARVO_TRACE(*this, 0, "{}", message);
    RuntimeException::throwException(message);
  }
  rewinddir(stream_);
  std::vector<String> names;
  while (const dirent* entry = readEntry()) {
    if (!isFileOrLink(*entry)) continue;
    const String name = static_cast<const char*>(entry->d_name);
    if (name.ends_with(extension)) {
      TARVO_TRACE(*this, 8, "found file with extension {}: {}", extension, name);
      names.push_back(name);
    } else {
      TARVO_TRACE(*this, 9, "skipping file: {}", name);
    }
  }
  return names;
}

bool DirNode::isFileOrLink(const dirent& entry) const {
  if (entry.d_type != DT_UNKNOWN) return entry.d_type == DT_REG || entry.d_type == DT_LNK;
  // Some file systems do not fill in d_type.
  struct stat status;
  const char* name = static_cast<const char*>(entry.d_name);
  return fstatat(dirfd(stream_), name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
         (S_ISREG(status.st_mode) || S_ISLNK(status.st_mode));
}

}  // namespace Tarvo
