#ifndef TARVO_BENCH_REPORTMACHINE_H
#define TARVO_BENCH_REPORTMACHINE_H

#include <string>
#include <utility>
#include <vector>

namespace report {

/// What one must know of a machine to understand its figures; nothing that tells which one it is.
std::vector<std::pair<std::string, std::string>> machineFacts();

}  // namespace report

#endif
