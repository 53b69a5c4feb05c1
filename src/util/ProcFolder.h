#ifndef TARVO_SRC_UTIL_PROCFOLDER_H
#define TARVO_SRC_UTIL_PROCFOLDER_H

#include <cstdint>
#include <optional>
#include <string_view>

#include "Tarvo/Process.h"
#include "util/OwnedFd.h"

namespace Tarvo::Impl {

/// The fields of /proc/PID/stat that are used here.
struct ProcessStat {
  char state = 0;
  unsigned long flags = 0;
  std::uint64_t startTicks = 0;

  bool ended() const { return state == 'Z' || state == 'X'; }
  bool kernelThread() const;
};

/// Reads /proc/PID/stat through the process's open directory; none when the process has ended.
std::optional<ProcessStat> processStat(int folder);

/// Opens the directory of a process under /proc. Files opened through it belong to that process,
/// even when its number is reused. Empty when there is no such process.
OwnedFd openProcess(pid_t pid);

/// Whether `error` means that the process has ended.
inline bool isGone(int error) { return error == ENOENT || error == ESRCH; }
inline bool isRefused(int error) { return error == EACCES || error == EPERM; }

/// Throws the exception for a failure to read a file of /proc. REQUIRES: !isGone(error).
[[noreturn]] void failToRead(std::string_view name, int error);

/// The contents of one file of the process; none when it has ended.
std::optional<String> readOf(const Process& process, const char* file);

}  // namespace Tarvo::Impl

#endif
