#include "ReportText.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace report {

std::string threeDigits(double number) {
  if (number == 0 || !std::isfinite(number)) return fmt::format("{}", number);
  const int before = static_cast<int>(std::floor(std::log10(std::abs(number)))) + 1;
  const double step = std::pow(10.0, before - 3);
  // A number of just below the next power of ten becomes that when it is rounded.
  const double rounded = std::round(number / step) * step;
  const int digits = static_cast<int>(std::floor(std::log10(std::abs(rounded)))) + 1;
  return fmt::format("{:.{}f}", rounded, std::max(0, 3 - digits));
}

std::string duration(double nanoseconds) {
  if (nanoseconds < 999.5) return threeDigits(nanoseconds) + " ns";
  if (nanoseconds < 999.5e3) return threeDigits(nanoseconds / 1e3) + " µs";
  if (nanoseconds < 999.5e6) return threeDigits(nanoseconds / 1e6) + " ms";
  return threeDigits(nanoseconds / 1e9) + " s";
}

std::string count(double number) {
  if (number >= 1e6) return fmt::format("{:g}M", number / 1e6);
  if (number >= 1e3) return fmt::format("{:g}k", number / 1e3);
  return fmt::format("{:g}", number);
}

}  // namespace report
