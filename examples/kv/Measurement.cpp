#include "Measurement.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>

namespace kv {

void Measurement::printHeading(const char* title) {
  fmt::print("{:<16} {:>10} {:>8} {:>8} {:>8} {:>8} {:>8}\n", title, "requests/s", "p50 ms",
             "p90 ms", "p99 ms", "p99.9 ms", "max ms");
}

void Measurement::print(const char* title) const {
  std::vector<float> sorted = latencies_;
  std::ranges::sort(sorted);
  const auto count = static_cast<double>(sorted.size());
  fmt::print("{:<16} {:>10.0f}", title, count / (end_ - begin_));
  for (const double part : {0.5, 0.9, 0.99, 0.999, 1.0}) {
    const auto rank = std::min(static_cast<std::size_t>(part * count), sorted.size() - 1);
    fmt::print(" {:>8.2f}", sorted.empty() ? 0 : static_cast<double>(sorted[rank]) * 1e3);
  }
  fmt::print("\n");
}

}  // namespace kv
