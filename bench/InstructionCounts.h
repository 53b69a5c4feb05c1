#ifndef TARVO_BENCH_INSTRUCTIONCOUNTS_H
#define TARVO_BENCH_INSTRUCTIONCOUNTS_H

/// Instructions that a run of each hot path takes, as callgrind counts them. Unlike times they are
/// the same on a busy machine and on an idle one.

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace counts {

struct Path {
  const char* name;
  void (*run)(std::size_t times);
};
/// Tasks, timers and what else runs from the loop.
std::vector<Path> loopPaths();
/// Traces, exceptions, locks and names.
std::vector<Path> leafPaths();

/// Moves the clock that everything in this program reads; see InstructionCountsClock.cpp.
void passSeconds(long seconds);

/// Instructions of one run, by path.
using Table = std::map<std::string, double>;
Table readTable(const std::string& file);
std::string toText(const Table& table);
/// What is wrong with `now`, one line for each path: it grew by too much, came or went. Paths that
/// shrank by as much are put into `hints`.
std::vector<std::string> faults(const Table& before, const Table& now,
                                std::vector<std::string>& hints);

/// Why this machine's counts cannot be compared with the accepted ones; empty where they can.
std::string whyNotComparable();

/// Runs this program under callgrind for each path, and takes the difference between more runs and
/// fewer. Throws when that fails; `log` is a file for what valgrind says.
Table measure(const std::vector<Path>& paths, const std::string& log);

}  // namespace counts

#endif
