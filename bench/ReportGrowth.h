#ifndef TARVO_BENCH_REPORTGROWTH_H
#define TARVO_BENCH_REPORTGROWTH_H

/// What costs grow with, and what objects weigh.

#include <string>
#include <vector>

#include "ReportRows.h"

namespace report {

/// The rows that both sections need.
std::vector<std::string> growthRows();

std::string growthSection(const Rows& rows);
std::string growthChart(const Rows& rows);
std::string memorySection(const Rows& rows);

}  // namespace report

#endif
