#include <fcntl.h>
#include <fmt/format.h>
#include <sys/personality.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "InstructionCounts.h"

namespace counts {

namespace {

// Enough that caches are warm, vectors have grown and the history has come around; and numbers of
// equal length, so that the stack begins at the same place.
constexpr std::size_t fewer = 1000, more = 2000;

/// The C library chooses functions for strings by the processor; without what is listed it chooses
/// those that every x86_64 has. A line of a trace leaves out the thread's id, which has more digits
/// at some times than at others.
const std::array environment{
    "GLIBC_TUNABLES=glibc.cpu.hwcaps=-AVX,-AVX2,-AVX512F,-AVX512VL,-AVX512BW,-BMI1,-BMI2,-ERMS,"
    "-FSRM,-FMA,-FMA4,-LZCNT,-MOVBE,-POPCNT,-RTM,-SSE3,-SSSE3,-SSE4_1,-SSE4_2,-XSAVE,-XSAVEC,"
    "-AVX_Fast_Unaligned_Load,-Fast_Unaligned_Copy,-Fast_Unaligned_Load,-Fast_Copy_Backward,"
    "-Fast_Rep_String,-Slow_BSF",
    "LD_BIND_NOW=1",
    "TRACEFORMAT=date,time,handle,level",
    "TZ=UTC",
    "PATH=/usr/bin:/bin",
    static_cast<const char*>(nullptr)};

/// Starts this program under callgrind for so many runs of a path.
pid_t start(const std::string& path, std::size_t times, const std::string& result,
            const std::string& log) {
  const auto program = std::filesystem::read_symlink("/proc/self/exe").string();
  const auto file = "--callgrind-out-file=" + result;
  const auto number = std::to_string(times);
  const std::array arguments{
      "valgrind", "--tool=callgrind", file.c_str(),   program.c_str(),
      "run",      path.c_str(),       number.c_str(), static_cast<const char*>(nullptr)};
  const pid_t child = fork();
  if (child != 0) return child;
  const int out = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0666);
  dup2(out, STDOUT_FILENO);
  dup2(out, STDERR_FILENO);
  personality(ADDR_NO_RANDOMIZE);  // where that is forbidden, valgrind places most by itself
  execvpe(arguments[0], const_cast<char* const*>(arguments.data()),
          const_cast<char* const*>(environment.data()));
  _exit(127);
}

/// Waits for its end; false when it failed.
bool succeeded(pid_t child) {
  int status = 0;
  return child > 0 && waitpid(child, &status, 0) == child && status == 0;
}

double instructions(const std::string& result) {
  constexpr std::string_view head = "totals: ";
  std::ifstream in(result);
  for (std::string line; std::getline(in, line);) {
    if (line.starts_with(head)) return std::stod(line.substr(head.size()));
  }
  throw std::runtime_error("callgrind wrote no total into " + result);
}

}  // namespace

Table measure(const std::vector<Path>& paths, const std::string& log) {
  const auto resultOfFewer = log + "." + std::to_string(fewer);
  const auto resultOfMore = log + "." + std::to_string(more);
  Table table;
  for (const auto& path : paths) {
    // Nothing of a path or run before may pass for the count of this one.
    std::filesystem::remove(resultOfFewer);
    std::filesystem::remove(resultOfMore);
    const pid_t first = start(path.name, fewer, resultOfFewer, log);
    const pid_t second = start(path.name, more, resultOfMore, log);
    const bool firstSucceeded = succeeded(first);
    const bool secondSucceeded = succeeded(second);  // awaited even when the first one failed
    if (!firstSucceeded || !secondSucceeded) {
      throw std::runtime_error(fmt::format("{} failed under valgrind, see {}", path.name, log));
    }
    table[path.name] = (instructions(resultOfMore) - instructions(resultOfFewer)) /
                       static_cast<double>(more - fewer);
  }
  return table;
}

}  // namespace counts
