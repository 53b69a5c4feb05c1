#ifndef TARVO_BENCH_REPORTPAGE_H
#define TARVO_BENCH_REPORTPAGE_H

#include <string>
#include <vector>

#include "InstructionCounts.h"
#include "ReportRows.h"

namespace report {

/// Everything that goes into one report.
struct Input {
  Rows rows;
  bool quick = false;
  counts::Table instructions;
  std::string loadAtStart = "unknown";  // average of a minute, before anything was built
};

/// The rows that the report needs and no program measured or even skipped.
std::vector<std::string> missingRows(const Input& input);
/// The rows that gave up for a reason other than the machine's descriptors, and that reason.
std::vector<std::string> failedRows(const Input& input);

/// The summary alone.
std::string summary(const Input& input);
/// The whole report in Markdown; charts are in the folder "performance" beside it.
std::string page(const Input& input);

struct Chart {
  std::string file;
  std::string svg;
};
std::vector<Chart> charts(const Input& input);

}  // namespace report

#endif
