#include <fmt/format.h>

#include <fstream>
#include <stdexcept>

#include "InstructionCounts.h"

namespace counts {

namespace {

constexpr double tolerance = 0.03;

std::string change(const std::string& path, double before, double now) {
  return fmt::format("{}: {:.1f} instructions before, {:.1f} now ({:+.1f} %)", path, before, now,
                     100 * (now / before - 1));
}

}  // namespace

Table readTable(const std::string& file) {
  std::ifstream in(file);
  if (!in) throw std::runtime_error("cannot read " + file);
  Table table;
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    const auto gap = line.find("  ");  // names have single blanks
    if (gap == std::string::npos) throw std::runtime_error("not a path and its count: " + line);
    table[line.substr(0, gap)] = std::stod(line.substr(gap));
  }
  return table;
}

std::string toText(const Table& table) {
  std::string text =
      "# Instructions of one run of each hot path, counted by callgrind on Debian 12, x86_64.\n"
      "# Written by ./dev bench --instructions, and compared by ./dev check.\n";
  for (const auto& [path, count] : table) text += fmt::format("{:<58}{:>10.1f}\n", path, count);
  return text;
}

std::vector<std::string> faults(const Table& before, const Table& now,
                                std::vector<std::string>& hints) {
  std::vector<std::string> found;
  for (const auto& [path, count] : now) {
    const auto at = before.find(path);
    if (at == before.end()) {
      found.push_back(path + ": new, it has no count to compare with");
    } else if (count > at->second * (1 + tolerance)) {
      found.push_back(change(path, at->second, count));
    } else if (count < at->second * (1 - tolerance)) {
      hints.push_back(change(path, at->second, count));
    }
  }
  for (const auto& [path, count] : before) {
    if (!now.contains(path)) found.push_back(path + ": has a count, but is no longer measured");
  }
  return found;
}

}  // namespace counts
