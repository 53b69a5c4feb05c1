/// Makes one report of what the benchmark programs measured.
/// Usage: Report [--quick] [--instructions FILE] [--load LOAD] DIRECTORY RESULT.json...
/// Writes DIRECTORY/Performance.md and charts in DIRECTORY/performance, and the summary to standard
/// output. Fails when a row that the report compares is missing, or when any row gave up although
/// the machine had descriptors for it.

#include <fmt/format.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "ReportPage.h"

namespace {

namespace fs = std::filesystem;

void write(const fs::path& file, const std::string& content) {
  std::ofstream out(file, std::ios::trunc);
  out << content;
  out.close();
  if (!out) throw std::runtime_error("cannot write " + file.string());
}

struct Arguments {
  report::Input input;
  fs::path directory;
};

Arguments parsed(int argc, char** argv) {
  Arguments arguments;
  int at = 1;
  for (; at < argc && std::strncmp(argv[at], "--", 2) == 0; ++at) {
    const std::string option = argv[at];
    if (option == "--quick") {
      arguments.input.quick = true;
    } else if (option == "--instructions" && at + 1 < argc) {
      arguments.input.instructions = counts::readTable(argv[++at]);
    } else if (option == "--load" && at + 1 < argc) {
      arguments.input.loadAtStart = argv[++at];
    } else {
      throw std::runtime_error("unknown option " + option);
    }
  }
  if (argc - at < 2) throw std::runtime_error("which directory, and which results?");
  arguments.directory = argv[at];
  while (++at < argc) arguments.input.rows.read(argv[at]);
  return arguments;
}

void run(int argc, char** argv) {
  const auto [input, directory] = parsed(argc, argv);
  if (const auto missing = missingRows(input); !missing.empty()) {
    throw std::runtime_error(
        fmt::format("no program measured these rows, which the report needs:\n  {}",
                    fmt::join(missing, "\n  ")));
  }
  if (const auto failed = failedRows(input); !failed.empty()) {
    throw std::runtime_error(fmt::format("these rows gave up:\n  {}", fmt::join(failed, "\n  ")));
  }
  fs::create_directories(directory / "performance");
  write(directory / "Performance.md", page(input));
  for (const auto& chart : charts(input)) {
    write(directory / "performance" / (chart.file + ".svg"), chart.svg);
  }
  fmt::print("{}\n", summary(input));
}

}  // namespace

int main(int argc, char** argv) {
  try {
    run(argc, argv);
    return 0;
  } catch (const std::exception& e) {
    fmt::print(stderr, "Report: {}\n", e.what());
    return 1;
  }
}
