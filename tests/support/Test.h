#ifndef TARVO_TESTS_SUPPORT_TEST_H
#define TARVO_TESTS_SUPPORT_TEST_H

/// What all tests begin with.

#include <dlfcn.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <cmath>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iomanip>
#include <iostream>
#include <latch>
#include <limits>
#include <list>
#include <map>
#include <memory>
#include <random>
#include <ranges>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Tarvo/Debug.h"
#include "support/ChildProcess.h"
#include "support/Failure.h"
#include "support/OpenDescriptors.h"

namespace testsupport {

using Tarvo::String;
using Tarvo::Platform::getDebugHandler;
using testing::AllOf, testing::ElementsAre, testing::EndsWith, testing::HasSubstr,
    testing::MatchesRegex, testing::Optional, testing::StartsWith;

/// A folder of the test's own, gone at its end.
struct TempFolder : testing::Test {
  TempFolder() { std::filesystem::create_directories(folder); }
  ~TempFolder() override { std::filesystem::remove_all(folder); }
  const std::string folder = testing::TempDir() + "tarvo." + std::to_string(getpid());
};

/// What `body` writes to standard error.
template <typename Body>
String captured(Body body) {
  testing::internal::CaptureStderr();
  body();
  return testing::internal::GetCapturedStderr();
}

}  // namespace testsupport

#endif
