#include "util/ProcFolder.h"

#include <fcntl.h>

#include <charconv>
#include <limits>

#include "Tarvo/Fmt.h"
#include "util/Failed.h"
#include "util/ReadFile.h"

namespace Tarvo::Impl {

namespace {

constexpr unsigned long kernelThreadFlag = 0x00200000;  // PF_KTHREAD of the kernel
constexpr std::size_t noLimit = std::numeric_limits<std::size_t>::max();

/// A field of a line of /proc/PID/stat, by its number in proc(5). The second field is the title in
/// parentheses, which may contain any bytes, so counting starts behind the last parenthesis.
std::string_view statField(std::string_view line, int number) {
  const auto title = line.rfind(')');
  if (title == std::string_view::npos) return {};
  line.remove_prefix(title + 1);
  for (int skipped = 3;; ++skipped) {
    if (line.empty()) return {};
    line.remove_prefix(1);  // the blank before each field
    const auto end = line.find_first_of(" \n");
    if (skipped == number) return line.substr(0, end);
    line.remove_prefix(end == std::string_view::npos ? line.size() : end);
  }
}

template <typename Number>
bool parseField(std::string_view line, int number, Number& value) {
  const auto text = statField(line, number);
  return std::from_chars(text.data(), text.data() + text.size(), value).ec == std::errc();
}

}  // namespace

bool ProcessStat::kernelThread() const { return (flags & kernelThreadFlag) != 0; }

void failToRead(std::string_view name, int error) {
  const auto text = failureText("read", name, error);
  if (isRefused(error)) NoPermissionException::throwException(text);
  RuntimeException::throwException(text);
}

OwnedFd openProcess(pid_t pid) {
  const auto path = fmt::format("/proc/{}", pid);
  OwnedFd folder(open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!folder && !isGone(errno)) failToRead(path, errno);
  return folder;
}

std::optional<ProcessStat> processStat(int folder) {
  String line;
  const int error = readFile(folder, "stat", noLimit, line);
  if (isGone(error)) return std::nullopt;
  if (error != 0) failToRead("/proc/PID/stat", error);
  ProcessStat stat;
  const auto state = statField(line, 3);
  if (state.empty() || !parseField(line, 9, stat.flags) || !parseField(line, 22, stat.startTicks)) {
    RuntimeException::throwException("cannot understand /proc/PID/stat: " + line);
  }
  stat.state = state.front();
  return stat;
}

std::optional<String> readOf(const Process& process, const char* file) {
  const auto folder = openProcess(process.pid());
  if (!folder || processAt(folder.get(), process.pid()) != process) return std::nullopt;
  String contents;
  const int error = readFile(folder.get(), file, noLimit, contents);
  if (error != 0 && !isGone(error)) {
    failToRead(fmt::format("/proc/{}/{}", process.pid(), file), error);
  }
  if (!contents.empty()) return contents;
  // An empty file means a kernel thread, or a process that has just ended.
  const auto stat = processStat(folder.get());
  return error == 0 && stat && !stat->ended() ? std::optional(contents) : std::nullopt;
}

}  // namespace Tarvo::Impl
