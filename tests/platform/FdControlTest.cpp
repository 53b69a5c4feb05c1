#include <cstdlib>

#include "support/LoopFixture.h"

namespace {

using namespace testsupport;

struct FdControlTest : LoopFixture {
  /// Runs the loop until `handler` was notified `times` times, at the most for a few seconds.
  void runUntil(Handler& handler, int times) {
    handler.action = [&times] {
      if (--times == 0) event_base_loopbreak(Tarvo::leInit());
    };
    Platform::doEventLoop(20);
    EXPECT_EQ(times, 0);
  }
  SocketPair pair;
  const int fd = pair.ends[0];
  const std::string wrote = "h write " + std::to_string(fd), read = "h read " + std::to_string(fd);
};

TEST_F(FdControlTest, ReadsGoOnAndAWriteComesOnce) {
  Handler handler(log, "h");
  const auto control = Platform::getFdControl(&handler);
  control->setReads(true);  // only noted: there is no descriptor yet
  control->setWrites(true);
  control->setFd(fd);
  EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
  runUntil(handler, 1);
  EXPECT_THAT(log, ElementsAre(wrote));

  ASSERT_EQ(write(pair.ends[1], "x", 1), 1);
  log.clear();
  runUntil(handler, 3);  // unread data is reported again, the writable descriptor is not
  EXPECT_THAT(log, ElementsAre(read, read, read));

  control->setReads(false);
  control->setWrites(true);
  log.clear();
  runUntil(handler, 1);
  EXPECT_THAT(log, ElementsAre(wrote));
  EXPECT_EQ(Platform::doEventLoop(), 1);  // nothing is watched any more
}

TEST_F(FdControlTest, WhatCannotBeWatchedIsRefused) {
  Handler handler(log, "h");
  const auto control = Platform::getFdControl(&handler);
  FILE* plain = std::tmpfile();
  control->setWrites(true);
  control->setFd(fd);
  testing::internal::CaptureStderr();
  EXPECT_THROW(control->setFd(fileno(plain)), Tarvo::RuntimeException);
  EXPECT_EQ(control->getFd(), -1);
  EXPECT_EQ(Platform::doEventLoop(), 1);  // nothing of the old descriptor is left
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("Operation not permitted"));
  std::fclose(plain);
  EXPECT_DEATH(control->setFd(9999), "Assertion `flags >= 0' failed");
}

}  // namespace
