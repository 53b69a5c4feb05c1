#include "Tarvo/Thread.h"

#include "support/Test.h"

namespace {

using namespace testsupport;

TEST(ThreadTest, OnlyOtherThreadsAreNamed) {
  const auto before = Tarvo::threadName();
  Tarvo::threadNameIs("a name that is far too long for any thread");
  EXPECT_EQ(Tarvo::currentThreadName(), before);
  std::jthread([] {
    Tarvo::threadNameIs("fifteen letters");
    EXPECT_THAT(failureOf([] { Tarvo::threadNameIs("sixteen letters!"); }),
                HasSubstr("failed:" + std::to_string(ERANGE) + " for name:sixteen letters!"));
    EXPECT_EQ(Tarvo::threadName(), "fifteen letters");
  });
}

}  // namespace
