#ifndef TARVO_TESTS_SUPPORT_TEST_H
#define TARVO_TESTS_SUPPORT_TEST_H

/// What tests of files, processes and traces begin with.

#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "Tarvo/Debug.h"
#include "support/ChildProcess.h"
#include "support/Failure.h"

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
