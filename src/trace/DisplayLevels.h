#ifndef TARVO_SRC_TRACE_DISPLAYLEVELS_H
#define TARVO_SRC_TRACE_DISPLAYLEVELS_H

#include <cstdint>

#include "Tarvo/String.h"

namespace Tarvo::Impl {

constexpr unsigned levelCount = 10;
constexpr std::uint16_t allLevels = (1U << levelCount) - 1;

/// "*" for all ten levels, otherwise the digits of those that are on.
inline String displayLevels(std::uint32_t levels) {
  if (levels == allLevels) return "*";
  String digits;
  for (unsigned level = 0; level < levelCount; ++level) {
    if (((levels >> level) & 1U) != 0) digits += static_cast<char>('0' + level);
  }
  return digits;
}

}  // namespace Tarvo::Impl

#endif
