/// Counts the instructions of the hot paths.
/// Usage: InstructionCounts run PATH TIMES       a path, so many times, to be counted from outside
///        InstructionCounts write BASELINE LOG   measures all paths and writes their counts
///        InstructionCounts check BASELINE LOG   measures all and fails when one got dearer

#include "InstructionCounts.h"

#include <fmt/format.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace {

std::vector<counts::Path> allPaths() {
  auto all = counts::loopPaths();
  const auto leaves = counts::leafPaths();
  all.insert(all.end(), leaves.begin(), leaves.end());
  return all;
}

int runOne(const char* name, const char* times) {
  for (const auto& path : allPaths()) {
    if (std::strcmp(path.name, name) != 0) continue;
    path.run(std::stoul(times));
    return 0;
  }
  throw std::runtime_error(fmt::format("no path \"{}\"", name));
}

counts::Table measureAll(const std::string& log) {
  std::filesystem::remove(log);
  return counts::measure(allPaths(), log);
}

int writeAll(const std::string& baseline, const std::string& log) {
  const auto text = counts::toText(measureAll(log));
  std::ofstream out(baseline, std::ios::trunc);
  out << text;
  out.close();
  if (!out) throw std::runtime_error("cannot write " + baseline);
  fmt::print("{}", text);
  return 0;
}

int check(const std::string& baseline, const std::string& log) {
  const auto before = counts::readTable(baseline);
  std::vector<std::string> hints;
  const auto faults = counts::faults(before, measureAll(log), hints);
  if (!hints.empty()) {
    fmt::print("Fewer instructions than {} says; ./dev bench --instructions records it:\n  {}\n",
               baseline, fmt::join(hints, "\n  "));
  }
  if (faults.empty()) return 0;
  fmt::print(stderr,
             "Instruction counts differ from {}:\n  {}\n"
             "Where that is meant, ./dev bench --instructions writes the counts anew; commit them "
             "together with the change.\n",
             baseline, fmt::join(faults, "\n  "));
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const std::string command = argc == 4 ? argv[1] : "";
    if (command == "run") return runOne(argv[2], argv[3]);
    if (command == "write") return writeAll(argv[2], argv[3]);
    if (command == "check") return check(argv[2], argv[3]);
    fmt::print(stderr, "usage: InstructionCounts run PATH TIMES | write|check BASELINE LOG\n");
    return 2;
  } catch (const std::exception& e) {
    fmt::print(stderr, "InstructionCounts: {}\n", e.what());
    return 1;
  }
}
