#ifndef TARVO_BENCH_DRAW_H
#define TARVO_BENCH_DRAW_H

#include <cstddef>
#include <cstdint>

namespace bench {

/// Random numbers (the linear congruence of Knuth's MMIX), the same in every run, and cheap enough
/// to be drawn within a measurement, so that any of a million can be hit.
class Draw {
 public:
  /// Below n, which is at most 2^32.
  std::size_t below(std::size_t n) { return static_cast<std::size_t>((next() * n) >> 32U); }
  /// Seconds from `least` to `most`.
  double delay(double least, double most) {
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
