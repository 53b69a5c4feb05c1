#ifndef TARVO_PROCESS_H
#define TARVO_PROCESS_H

/// Facts about a process, this one or another, read from /proc.
///
///     if (const auto process = Tarvo::Process::of(pid)) {
///       if (const auto title = process->title()) show(*title, process->startWallTime());
///     }
///
/// A Process stands for one process and not for its number: when that process has ended and the
/// number names another one, it says that it has ended and gives nothing of the other. It is a
/// value of two numbers, to be copied, compared and kept. (Numbers are told apart by the time of
/// start, in steps of 10 ms; the kernel takes far longer to come round to a number again.)
///
/// Processes end at any time, also while they are read. That is no error: what is gone gives an
/// empty optional. NoPermissionException is thrown where the kernel refuses, RuntimeException when
/// reading fails otherwise, as for want of descriptors. Any thread may call all of this.

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

/// The process whose folder under /proc is open as `folder`; none when it has ended.
std::optional<Process> processAt(int folder, pid_t pid);

}  // namespace Impl

class TARVO_EXPORT Process {
 public:
  /// The process of that number; none when there is no such process, also when the number is that
  /// of a thread other than a process's first. A process that has ended counts until its parent
  /// has waited for it.
  static std::optional<Process> of(pid_t pid);
  /// The calling process.
  static Process self();

  pid_t pid() const { return pid_; }
  /// When it started, on the boot clock: since the machine was started, with the time asleep.
  std::chrono::nanoseconds startTime() const { return start_; }
  /// The same on the wall clock as that is set now.
  std::chrono::system_clock::time_point startWallTime() const;

  /// Whether it has ended, be it that its parent has not yet waited for it.
  bool ended() const;
  /// The title, which is the name of its first thread: of any bytes but zero.
  std::optional<String> title() const;
  /// Its arguments, byte for byte, with the program's name first. A kernel thread has none. What a
  /// program has written over its arguments is what is found.
  std::optional<std::vector<String>> commandLine() const;

  /// Sets the title of the calling process, from any of its threads. What is beyond 15 bytes is cut
  /// off, as is what follows a zero byte. (A threadName() that the first thread has asked for
  /// before stays as it was.)
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
