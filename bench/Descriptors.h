#ifndef TARVO_BENCH_DESCRIPTORS_H
#define TARVO_BENCH_DESCRIPTORS_H

/// What a row says when the machine allows it too few descriptors. The report goes on without such
/// a row; whatever else a row gives up for is a failure.

#include <cerrno>
#include <string_view>

namespace bench {

inline constexpr const char* descriptorLimitTooLow = "the limit of open descriptors is too low";
inline constexpr const char* noDescriptorsLeft = "no descriptors left in the system";

/// Why a call made no descriptor, by errno.
inline const char* whyNoDescriptor() {
  if (errno == EMFILE) return descriptorLimitTooLow;
  if (errno == ENFILE) return noDescriptorsLeft;
  return "a descriptor could not be made";
}

inline bool lacksDescriptors(std::string_view reason) {
  return reason == descriptorLimitTooLow || reason == noDescriptorsLeft;
}

}  // namespace bench

#endif
