#include "ReportMachine.h"

#include <fmt/format.h>
#include <gnu/libc-version.h>
#include <sys/resource.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <fstream>

namespace report {

namespace {

std::string processor() {
  std::ifstream in("/proc/cpuinfo");
  for (std::string line; std::getline(in, line);) {
    if (line.starts_with("model name")) return line.substr(line.find(':') + 2);
  }
  return "unknown";
}

std::string system() {
  std::ifstream in("/etc/os-release");
  for (std::string line; std::getline(in, line);) {
    if (line.starts_with("PRETTY_NAME=\"")) return line.substr(13, line.size() - 14);
  }
  return "unknown";
}

std::string kernel() {
  utsname names{};
  uname(&names);
  const std::string release = names.release;  // behind the number stands who built it
  return fmt::format("{} {} {}", names.sysname, release.substr(0, release.find('-')),
                     names.machine);
}

std::string descriptors() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  return fmt::format("{}", limit.rlim_max);
}

}  // namespace

std::vector<std::pair<std::string, std::string>> machineFacts() {
  return {
      {"processor", processor()},
      {"cores", fmt::format("{}, of which the programs use one", sysconf(_SC_NPROCESSORS_ONLN))},
      {"system", system()},
      {"kernel", kernel()},
      {"compiler", fmt::format("g++ {}, {}", __VERSION__, TARVO_BENCH_BUILD_TYPE)},
      {"libraries", fmt::format("glibc {}, {}", gnu_get_libc_version(), TARVO_BENCH_LIBRARIES)},
      {"descriptors allowed", descriptors()}};
}

}  // namespace report
