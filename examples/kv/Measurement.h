#ifndef TARVO_EXAMPLES_KV_MEASUREMENT_H
#define TARVO_EXAMPLES_KV_MEASUREMENT_H

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <vector>

namespace kv {

/// How fast a service answered for some time.
struct Measurement {
  double seconds = 0;
  std::vector<float> latencies = {};  // seconds

  static void printHeading() {
    fmt::print("{:<16} {:>10} {:>8} {:>8} {:>8} {:>8} {:>8}\n", "background work", "requests/s",
               "p50 ms", "p90 ms", "p99 ms", "p99.9 ms", "max ms");
  }
  void print(const char* title) {
    std::ranges::sort(latencies);
    const auto count = static_cast<double>(latencies.size());
    fmt::print("{:<16} {:>10.0f}", title, count / seconds);
    for (const double part : {0.5, 0.9, 0.99, 0.999, 1.0}) {
      const auto rank = std::min(static_cast<std::size_t>(part * count), latencies.size() - 1);
      fmt::print(" {:>8.2f}", latencies.empty() ? 0 : static_cast<double>(latencies[rank]) * 1e3);
    }
    fmt::print("\n");
  }
};

}  // namespace kv

#endif
