#ifndef TARVO_BENCH_STATE_H
#define TARVO_BENCH_STATE_H

/// What a row is given: the state of Google Benchmark, or, in the program whose instructions are
/// counted, one that counts rounds. So both measure the same bodies.

#ifdef TARVO_BENCH_COUNTS_INSTRUCTIONS
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace bench {

class State {
 public:
  State(std::size_t rounds, std::vector<std::int64_t> arguments)
      : left_(rounds), arguments_(std::move(arguments)) {}

  bool KeepRunning() { return left_ > 0 && left_-- > 0; }
  std::int64_t range(std::size_t i = 0) const { return arguments_.at(i); }
  void SkipWithError(const char*) { std::abort(); }

  struct [[maybe_unused]] Round {};
  struct Rounds {
    bool operator!=(const Rounds&) const { return left > 0; }
    void operator++() { --left; }
    Round operator*() const { return {}; }
    std::size_t left;
  };
  Rounds begin() { return {left_}; }
  Rounds end() { return {0}; }

 private:
  std::size_t left_;
  std::vector<std::int64_t> arguments_;
};

}  // namespace bench
#else
#include <benchmark/benchmark.h>

namespace bench {
using benchmark::State;
}
#endif

namespace bench {

/// The compiler must neither leave out what made `value` nor know it from the time before.
template <typename Value>
void opaque(const Value& value) {
  asm volatile("" : : "m"(value) : "memory");
}

/// How many of something the row has.
inline std::size_t many(const State& state) { return static_cast<std::size_t>(state.range(0)); }

}  // namespace bench

#endif
