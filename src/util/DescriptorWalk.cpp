#include "util/DescriptorWalk.h"

#include <fcntl.h>

#include <charconv>
#include <string_view>

#include "util/ProcFolder.h"

namespace Tarvo::Impl {

namespace {

/// The next entry whose name is a number; -1 at the end.
int nextNumber(DIR* folder) {
  while (const dirent* entry = readdir(folder)) {
    const std::string_view name = static_cast<const char*>(entry->d_name);
    int number = -1;
    std::from_chars(name.data(), name.data() + name.size(), number);
    if (number >= 0) return number;
  }
  return -1;
}

}  // namespace

DescriptorWalk::DescriptorWalk() {
  processes_.reset(opendir("/proc"));
  if (!processes_) failToRead("/proc", errno);
}

bool DescriptorWalk::next() {
  descriptor_ = -1;
  if (descriptors_) {
    descriptor_ = nextNumber(descriptors_.get());
    if (descriptor_ < 0) descriptors_.reset();
    return true;
  }
  folder_ = OwnedFd();
  const pid_t pid = nextNumber(processes_.get());
  if (pid >= 0) enter(pid);
  return pid >= 0;
}

void DescriptorWalk::enter(pid_t pid) {
  pid_ = pid;
  folder_ = openProcess(pid);
  if (!folder_) return;
  OwnedFd descriptors(openat(folder_.get(), "fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!descriptors && isRefused(errno)) {
    // Zombies and kernel threads refuse too, but have no descriptors that could be missed.
    const auto stat = processStat(folder_.get());
    if (stat && !stat->ended() && !stat->kernelThread()) refused_.push_back(pid);
    return;
  }
  if (!descriptors && isGone(errno)) return;
  if (descriptors) descriptors_.reset(fdopendir(descriptors.get()));
  if (!descriptors_) failToRead("/proc/PID/fd", errno);
  descriptors.release();
}

}  // namespace Tarvo::Impl
