#ifndef TARVO_BENCH_INSTRUCTIONCOUNTS_H
#define TARVO_BENCH_INSTRUCTIONCOUNTS_H

/// Instructions that a run of each hot path takes, as callgrind counts them. Unlike times they are
/// the same on a busy machine and on an idle one.

#include <cstddef>
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

}  // namespace counts

#endif
