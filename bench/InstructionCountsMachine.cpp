#include <fmt/format.h>

#include <fstream>

#include "InstructionCounts.h"

namespace counts {

namespace {

// Where the accepted counts were made: others have another C library or another code generator.
constexpr const char* acceptedSystem = "debian 12";
constexpr const char* acceptedCompiler = "g++ 12";

/// The value of a field of /etc/os-release, which may stand in quotes.
std::string fieldOfSystem(const std::string& field) {
  std::ifstream in("/etc/os-release");
  for (std::string line; std::getline(in, line);) {
    if (!line.starts_with(field + "=")) continue;
    line.erase(0, field.size() + 1);
    std::erase_if(line, [](char c) { return c == '"' || c == '\''; });
    return line;
  }
  return "unknown";
}

std::string compiler() {
#ifdef __clang__
  return fmt::format("clang {}", __clang_major__);
#else
  return fmt::format("g++ {}", __GNUC__);
#endif
}

}  // namespace

std::string whyNotComparable() {
#ifndef __x86_64__
  return "the processor is another one";
#endif
  const auto system = fieldOfSystem("ID") + " " + fieldOfSystem("VERSION_ID");
  if (system != acceptedSystem) return "the system is " + system;
  if (compiler() != acceptedCompiler) return "the compiler is " + compiler();
  return "";
}

}  // namespace counts
