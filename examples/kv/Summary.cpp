#include "Summary.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <vector>

namespace kv {

namespace {

/// A measurement in order, to be asked.
class Figures {
 public:
  explicit Figures(const Measurement& measurement)
      : seconds_(measurement.end - measurement.begin), latencies_(measurement.latencies) {
    std::ranges::sort(latencies_);
  }

  double perSecond() const { return static_cast<double>(latencies_.size()) / seconds_; }
  /// The latency below which a part of all answers came, in milliseconds.
  double milliseconds(double part) const {
    if (latencies_.empty()) return 0;
    const auto rank = static_cast<std::size_t>(part * static_cast<double>(latencies_.size()));
    return static_cast<double>(latencies_[std::min(rank, latencies_.size() - 1)]) * 1e3;
  }

 private:
  double seconds_;
  std::vector<float> latencies_;
};

void printFigures(const char* title, const Figures& figures) {
  fmt::print("{:<16} {:>10.0f}", title, figures.perSecond());
  for (const double part : {0.5, 0.9, 0.99, 0.999, 1.0}) {
    fmt::print(" {:>8.2f}", figures.milliseconds(part));
  }
  fmt::print("\n");
}

}  // namespace

void printSummary(const LoadTest& test) {
  fmt::print("{:<16} {:>10} {:>8} {:>8} {:>8} {:>8} {:>8}\n", "background work", "requests/s",
             "p50 ms", "p90 ms", "p99 ms", "p99.9 ms", "max ms");
  printFigures("off", Figures(test.measurement(Phase::quiet)));
  printFigures("on", Figures(test.measurement(Phase::busy)));
  for (const auto& oddity : test.oddities()) fmt::print("{}\n", oddity);
  fmt::print("{} answers checked byte for byte, {} wrong; {} keys stored, {:.1f} MB\n",
             test.answerCount(), test.wrongCount(), test.keyCount(),
             static_cast<double>(test.valueBytes()) / 1e6);
}

}  // namespace kv
