#ifndef TARVO_PROCESS_H
#define TARVO_PROCESS_H

/// Facts about a process, this one or another, read from /proc.
///
///     if (const auto process = Tarvo::Process::of(pid)) {
///       if (const auto title = process->title()) show(*title, process->startWallTime());
///     }
///
/// A Process identifies one process by its number and its start time. When that process has ended
/// and its number was given to another one, the object says that it has ended and reads nothing of
/// the other. It may be copied, compared and stored. (The start time has steps of 10 ms; the kernel
/// takes far longer to reuse a number.)
///
/// A process may end at any time, also while it is read. That is no error: the functions then
/// return an empty optional. NoPermissionException is thrown when the kernel refuses,
/// RuntimeException when reading fails for another reason, such as a lack of descriptors. Any
/// thread may call all of this.

#include <sys/types.h>

#include <chrono>
#include <compare>
#include <optional>
#include <vector>

#include "Tarvo/Export.h"
#include "Tarvo/String.h"

namespace Tarvo {

class Process;

namespace Impl {

/// The process whose directory under /proc is open as `folder`; none when it has ended.
std::optional<Process> processAt(int folder, pid_t pid);

}  // namespace Impl

class TARVO_EXPORT Process {
 public:
  /// The process of that number; none when there is no such process, or when the number is that of
  /// a thread other than a main thread. A zombie, which its parent has not waited for, still
  /// counts.
  static std::optional<Process> of(pid_t pid);
  /// The calling process.
  static Process self();

  pid_t pid() const { return pid_; }
  /// When it started, on the boot clock: time since boot, including suspend.
  std::chrono::nanoseconds startTime() const { return start_; }
  /// The same, on the wall clock as it is set now.
  std::chrono::system_clock::time_point startWallTime() const;

  /// Whether it has ended; also true for a zombie.
  bool ended() const;
  /// The title, which is the name of its main thread: any bytes but zero.
  std::optional<String> title() const;
  /// Its arguments, unchanged, with the program's name first. A kernel thread has none. If the
  /// program has overwritten its arguments, the result is what it wrote.
  std::optional<std::vector<String>> commandLine() const;

  /// Sets the title of the calling process, from any of its threads. It is cut at 15 bytes and at a
  /// zero byte. (If the main thread has called threadName() before, that keeps returning the old
  /// name.)
  static void titleIs(const String& title);

  friend auto operator<=>(const Process&, const Process&) = default;

 private:
  friend std::optional<Process> Impl::processAt(int folder, pid_t pid);
  Process(pid_t pid, std::chrono::nanoseconds start) : pid_(pid), start_(start) {}

  pid_t pid_;
  std::chrono::nanoseconds start_;
};

}  // namespace Tarvo

#endif
