#ifndef TARVO_BENCH_RANDOM_H
#define TARVO_BENCH_RANDOM_H

#include <cstddef>
#include <cstdint>

namespace bench {

/// Random numbers (the linear congruential generator of Knuth's MMIX), the same in every run, and
/// cheap enough to be made within a measurement, so that any of a million can be hit.
class RandomNumbers {
 public:
  /// Below n, which is at most 2^32.
  std::size_t below(std::size_t n) { return static_cast<std::size_t>((next() * n) >> 32U); }
  double between(double least, double most) {
    return least + (most - least) * static_cast<double>(next()) / 4294967296.0;
  }

 private:
  std::uint64_t next() {
    state_ = state_ * 6364136223846793005U + 1442695040888963407U;
    return state_ >> 32U;
  }
  std::uint64_t state_ = 1;
};

}  // namespace bench

#endif
