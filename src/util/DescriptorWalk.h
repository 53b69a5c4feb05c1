#ifndef TARVO_SRC_UTIL_DESCRIPTORWALK_H
#define TARVO_SRC_UTIL_DESCRIPTORWALK_H

#include <dirent.h>
#include <sys/types.h>

#include <memory>
#include <vector>

#include "util/OwnedFd.h"

namespace Tarvo::Impl {

/// Walks over the open descriptors of all processes, in small steps.
class DescriptorWalk {
 public:
  DescriptorWalk();

  /// Advances to the next process or to its next descriptor; false at the end.
  bool next();

  /// Whether the walk is at a descriptor; its number, its process, and that process's open
  /// directory under /proc.
  bool atDescriptor() const { return descriptor_ >= 0; }
  int descriptor() const { return descriptor_; }
  pid_t pid() const { return pid_; }
  int folder() const { return folder_.get(); }

  /// The processes that the kernel did not let us examine, sorted by number.
  const std::vector<pid_t>& refused() const { return refused_; }

 private:
  using Folder = std::unique_ptr<DIR, int (*)(DIR*)>;
  static Folder noFolder() { return {nullptr, closedir}; }
  void enter(pid_t pid);

  Folder processes_ = noFolder();
  Folder descriptors_ = noFolder();
  OwnedFd folder_;
  pid_t pid_ = -1;
  int descriptor_ = -1;
  std::vector<pid_t> refused_;
};

}  // namespace Tarvo::Impl

#endif
