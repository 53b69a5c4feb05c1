/// The hot paths whose instructions are counted, by instructions.py.
/// Usage: InstructionCounts             tells what it was compiled for and with, and all paths
///        InstructionCounts PATH TIMES  runs a path, so many times, to be counted from outside

#include "InstructionCounts.h"

#include <fmt/format.h>

#include <cstring>

namespace {

std::string compiler() {
#ifdef __clang__
  return fmt::format("clang {}", __clang_major__);
#else
  return fmt::format("g++ {}", __GNUC__);
#endif
}

}  // namespace

int main(int argc, char** argv) {
  auto paths = counts::loopPaths();
  const auto leaves = counts::leafPaths();
  paths.insert(paths.end(), leaves.begin(), leaves.end());
  if (argc == 1) {
    fmt::print("{}\n", compiler());
    for (const auto& path : paths) fmt::print("{}\n", path.name);
    return 0;
  }
  for (const auto& path : paths) {
    if (argc != 3 || std::strcmp(path.name, argv[1]) != 0) continue;
    path.run(std::stoul(argv[2]));
    return 0;
  }
  fmt::print(stderr, "usage: InstructionCounts [PATH TIMES], where it names the paths without\n");
  return 2;
}
