#include "Tarvo/Thread.h"

#include <gmock/gmock.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "support/ChildProcess.h"
#include "support/Failure.h"

namespace {

using testing::HasSubstr;
using testsupport::failureOf;

TEST(ThreadTest, OnlyOtherThreadsAreNamed) {
  const auto before = Tarvo::threadName();
  Tarvo::threadNameIs("a name that is far too long for any thread");
  EXPECT_EQ(Tarvo::currentThreadName(), before);
  std::jthread([] {
    Tarvo::threadNameIs("fifteen letters");
    EXPECT_EQ(Tarvo::threadName(), "fifteen letters");
    EXPECT_THAT(failureOf([] { Tarvo::threadNameIs("sixteen letters!"); }),
                HasSubstr("Tarvo::threadNameIs() pthread_setname_np() failed:" +
                          std::to_string(ERANGE) + " for name:sixteen letters!"));
    EXPECT_EQ(Tarvo::threadName(), "fifteen letters");
  });
}

TEST(ThreadTest, TheThreadIdIsRightAfterFork) {
  const auto kernelTid = [] { return static_cast<pid_t>(syscall(SYS_gettid)); };
  EXPECT_TRUE(Tarvo::isMainThread());
  std::jthread([&] {
    EXPECT_EQ(Tarvo::gettid(), kernelTid());
    EXPECT_FALSE(Tarvo::isMainThread());
    const auto child = testsupport::runForked(
        [&] { return Tarvo::gettid() == kernelTid() && Tarvo::isMainThread() ? 0 : 1; });
    EXPECT_EQ(child.exitCode, 0);
  });
}

TEST(ThreadTest, TheSingletonModeIsSettledByTheFirstLookUp) {
  std::jthread([] {
    EXPECT_FALSE(Tarvo::hasThreadLocalSingletons());
    EXPECT_THAT(failureOf([] { Tarvo::useThreadLocalSingletons(); }),
                HasSubstr("Attempt to change threadLocalSingletons after a global singleton"));
  });
  std::jthread([] {
    Tarvo::useThreadLocalSingletons();
    EXPECT_TRUE(Tarvo::hasThreadLocalSingletons());
    EXPECT_EQ(failureOf([] { Tarvo::useThreadLocalSingletons(); }), "nothing failed");
  });
}

}  // namespace
