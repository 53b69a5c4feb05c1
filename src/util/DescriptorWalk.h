#ifndef TARVO_SRC_UTIL_DESCRIPTORWALK_H
#define TARVO_SRC_UTIL_DESCRIPTORWALK_H

#include <dirent.h>
#include <sys/types.h>

#include <memory>
#include <vector>

#include "util/OwnedFd.h"

namespace Tarvo::Impl {

/// Goes over the open descriptors of all processes.
class DescriptorWalk {
 public:
  DescriptorWalk();

  /// Goes on by a process or by a descriptor; false at the end.
  bool next();

  /// Whether it stands at a descriptor now; which one, and the open folder of its process.
  bool atDescriptor() const { return descriptor_ >= 0; }
  int descriptor() const { return descriptor_; }
  pid_t pid() const { return pid_; }
  int folder() const { return folder_.get(); }

  /// The processes that could not be looked at, by rising number.
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
