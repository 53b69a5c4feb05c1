#include "Tarvo/Process.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>

#include "Tarvo/Fmt.h"
#include "Tarvo/Thread.h"
#include "util/Failed.h"
#include "util/ProcFolder.h"
#include "util/ReadFile.h"

namespace Tarvo {

namespace {

using std::chrono::nanoseconds;

nanoseconds now(clockid_t clock) {
  timespec time;
  clock_gettime(clock, &time);
  return std::chrono::seconds(time.tv_sec) + nanoseconds(time.tv_nsec);
}

/// Whether the directory is that of a process, not of one of its other threads.
bool isProcess(int folder, pid_t pid) {
  String status;
  const int error = Impl::readFile(folder, "status", 1 << 20, status);
  if (error != 0 && !Impl::isGone(error)) Impl::failToRead("/proc/PID/status", error);
  return status.find(fmt::format("\nTgid:\t{}\n", pid)) != String::npos;
}

}  // namespace

std::optional<Process> Impl::processAt(int folder, pid_t pid) {
  const auto stat = processStat(folder);
  if (!stat) return std::nullopt;
  const auto perSecond = static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK));
  return Process(pid, nanoseconds(stat->startTicks * (1'000'000'000 / perSecond)));
}

std::optional<Process> Process::of(pid_t pid) {
  const auto folder = Impl::openProcess(pid);
  if (!folder || !isProcess(folder.get(), pid)) return std::nullopt;
  return Impl::processAt(folder.get(), pid);
}

Process Process::self() {
  const auto process = of(getpid());
  if (!process) RuntimeException::throwException("cannot find the own process in /proc");
  return *process;
}

std::chrono::system_clock::time_point Process::startWallTime() const {
  const auto age = now(CLOCK_BOOTTIME) - start_;
  return std::chrono::system_clock::time_point(
      std::chrono::duration_cast<std::chrono::system_clock::duration>(now(CLOCK_REALTIME) - age));
}

bool Process::ended() const {
  const auto folder = Impl::openProcess(pid_);
  if (!folder || Impl::processAt(folder.get(), pid_) != *this) return true;
  const auto stat = Impl::processStat(folder.get());
  return !stat || stat->ended();
}

std::optional<String> Process::title() const {
  auto title = Impl::readOf(*this, "comm");
  if (title && title->ends_with('\n')) title->pop_back();
  return title;
}

std::optional<std::vector<String>> Process::commandLine() const {
  const auto text = Impl::readOf(*this, "cmdline");
  if (!text) return std::nullopt;
  std::vector<String> arguments;
  for (std::size_t at = 0; at < text->size();) {
    const auto end = std::min(text->find('\0', at), text->size());
    arguments.push_back(text->substr(at, end - at));
    at = end + 1;
  }
  return arguments;
}

void Process::titleIs(const String& title) {
  // prctl() always works, but only for the calling thread. The file works from any thread, but not
  // in a process that has changed its user.
  if (isMainThread()) {
    prctl(PR_SET_NAME, title.c_str());
    return;
  }
  const Impl::OwnedFd file(open("/proc/self/comm", O_WRONLY | O_CLOEXEC));
  const String text = title.substr(0, title.find('\0'));
  if (!file || write(file.get(), text.data(), text.size()) < 0) {
    Impl::throwOnError("set the title to", title, Impl::errorCode(errno));
  }
}

}  // namespace Tarvo
