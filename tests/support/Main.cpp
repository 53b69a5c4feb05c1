#include <gtest/gtest.h>

#include "Tarvo/Backtrace.h"
#include "Tarvo/Exception.h"
#include "Tarvo/LibeventFactory.h"
#include "support/OpenDescriptors.h"

namespace {

/// Each test leaves as many descriptors open as it found.
struct DescriptorCheck : testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo&) override { before = testsupport::openDescriptors(); }
  void OnTestEnd(const testing::TestInfo&) override {
    Tarvo::leFree();
    EXPECT_EQ(testsupport::openDescriptors(), before);
  }
  long before = 0;
};

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  Tarvo::throwOnAssertFailIs(true);
  const Tarvo::Backtrace first(true);  // the unwinder keeps a pipe of its own
  testing::UnitTest::GetInstance()->listeners().Append(new DescriptorCheck);
  return RUN_ALL_TESTS();
}
