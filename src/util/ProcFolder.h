#ifndef TARVO_SRC_UTIL_PROCFOLDER_H
#define TARVO_SRC_UTIL_PROCFOLDER_H

#include <cstdint>
#include <optional>
#include <string_view>

#include "Tarvo/Process.h"
#include "util/OwnedFd.h"

namespace Tarvo::Impl {

/// What /proc/PID/stat says, as far as it is used here.
struct ProcessStat {
  char state = 0;
  unsigned long flags = 0;
  std::uint64_t startTicks = 0;

  bool ended() const { return state == 'Z' || state == 'X'; }
  bool kernelThread() const;
};

/// Reads it through the open folder of the process; none when the process is gone.
std::optional<ProcessStat> processStat(int folder);

/// The folder of a process under /proc: what is read through it is of that very process, whoever
/// has its number later. None when there is no such process.
OwnedFd openProcess(pid_t pid);

/// Whether `error` is how /proc says that a process has ended.
inline bool isGone(int error) { return error == ENOENT || error == ESRCH; }
inline bool isRefused(int error) { return error == EACCES || error == EPERM; }

/// Throws what a failure to read a file of /proc deserves, but for those that isGone() knows.
[[noreturn]] void failToRead(std::string_view name, int error);

/// The contents of one file of the process; none when it has ended.
std::optional<String> readOf(const Process& process, const char* file);

}  // namespace Tarvo::Impl

#endif
