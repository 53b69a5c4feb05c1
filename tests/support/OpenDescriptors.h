#ifndef TARVO_TESTS_SUPPORT_OPENDESCRIPTORS_H
#define TARVO_TESTS_SUPPORT_OPENDESCRIPTORS_H

#include <filesystem>

namespace testsupport {

inline long openDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return std::distance(begin(all), end(all));
}

}  // namespace testsupport

#endif
