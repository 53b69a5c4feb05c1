/// Counts the instructions of the hot paths.
/// Usage: InstructionCounts run PATH TIMES       a path, so many times, to be counted from outside
///        InstructionCounts write BASELINE LOG   measures all paths and writes their counts
///        InstructionCounts check BASELINE LOG   measures all and fails when one got dearer; says
///                                               so where the machine cannot be compared
///        InstructionCounts confirm BASELINE LOG measures all and fails when one changed either
///                                               way, or where that cannot be compared

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

constexpr const char* notCompared =
    "instruction counts are those of Debian 12 on x86_64, not compared here";

/// For what is of no use without comparable counts.
void requireComparable() {
  if (const auto reason = counts::whyNotComparable(); !reason.empty()) {
    throw std::runtime_error(fmt::format("{}: {}", notCompared, reason));
  }
}

int writeAll(const std::string& baseline, const std::string& log) {
  requireComparable();
  const auto text = counts::toText(measureAll(log));
  std::ofstream out(baseline, std::ios::trunc);
  out << text;
  out.close();
  if (!out) throw std::runtime_error("cannot write " + baseline);
  fmt::print("{}", text);
  return 0;
}

int report(const std::string& baseline, const std::vector<std::string>& faults) {
  if (faults.empty()) return 0;
  fmt::print(stderr,
             "Instruction counts differ from {}:\n  {}\n"
             "Where that is meant, ./dev bench --instructions writes the counts anew; commit them "
             "together with the change.\n",
             baseline, fmt::join(faults, "\n  "));
  return 1;
}

int check(const std::string& baseline, const std::string& log) {
  if (const auto reason = counts::whyNotComparable(); !reason.empty()) {
    fmt::print("{}: {}\n", notCompared, reason);
    return 0;
  }
  std::vector<std::string> hints;
  const auto faults = counts::faults(counts::readTable(baseline), measureAll(log), hints);
  if (!hints.empty()) {
    fmt::print("Fewer instructions than {} says; ./dev bench --instructions records it:\n  {}\n",
               baseline, fmt::join(hints, "\n  "));
  }
  return report(baseline, faults);
}

int confirm(const std::string& baseline, const std::string& log) {
  requireComparable();
  std::vector<std::string> fewer;
  auto faults = counts::faults(counts::readTable(baseline), measureAll(log), fewer);
  faults.insert(faults.end(), fewer.begin(), fewer.end());
  return report(baseline, faults);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const std::string command = argc == 4 ? argv[1] : "";
    if (command == "run") return runOne(argv[2], argv[3]);
    if (command == "write") return writeAll(argv[2], argv[3]);
    if (command == "check") return check(argv[2], argv[3]);
    if (command == "confirm") return confirm(argv[2], argv[3]);
    fmt::print(stderr,
               "usage: InstructionCounts run PATH TIMES | write|check|confirm BASELINE LOG\n");
    return 2;
  } catch (const std::exception& e) {
    fmt::print(stderr, "InstructionCounts: {}\n", e.what());
    return 1;
  }
}
