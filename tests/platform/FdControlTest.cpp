#include <gmock/gmock-matchers.h>

#include <cstdlib>

#include "Tarvo/Exception.h"
#include "support/LoopFixture.h"

namespace {

using namespace testsupport;
using testing::ElementsAre;

struct FdControlTest : LoopFixture {
  /// Runs the loop until `handler` was notified `times` times, at the most for a few seconds.
  void runUntil(Handler& handler, int times) {
    handler.action = [&times] {
      if (--times == 0) event_base_loopbreak(Tarvo::leInit());
    };
    Platform::doEventLoop(20);
    EXPECT_EQ(times, 0);
  }
  static std::string at(const std::string& what, int number) {
    return what + std::to_string(number);
  }

  SocketPair pair;
  const int fd = pair.ends[0];
  const int peer = pair.ends[1];
};

TEST_F(FdControlTest, ReadsGoOnAndAWriteComesOnce) {
  Handler handler(log, "h");
  const auto control = Platform::getFdControl(&handler);
  EXPECT_EQ(control->getFd(), -1);
  control->setReads(true);  // only noted: there is no descriptor yet
  control->setWrites(true);
  control->setFd(fd);
  EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
  runUntil(handler, 1);
  EXPECT_THAT(log, ElementsAre(at("h write ", fd)));

  ASSERT_EQ(write(peer, "x", 1), 1);
  log.clear();
  runUntil(handler, 3);  // unread data is reported again, the writable descriptor is not
  EXPECT_THAT(log, ElementsAre(at("h read ", fd), at("h read ", fd), at("h read ", fd)));

  control->setReads(false);
  control->setWrites(true);
  log.clear();
  runUntil(handler, 1);
  EXPECT_THAT(log, ElementsAre(at("h write ", fd)));
  EXPECT_EQ(Platform::doEventLoop(), 1);  // nothing is watched any more
}

TEST_F(FdControlTest, AReusedNumberBelongsToItsNewOwner) {
  Handler oldOwner(log, "old");
  Handler newOwner(log, "new");
  const auto oldControl = Platform::getFdControl(&oldOwner);
  const auto newControl = Platform::getFdControl(&newOwner);
  SocketPair replacement;
  const int number = dup(fd);
  oldControl->setFd(number);
  oldControl->delFd();
  close(number);
  ASSERT_EQ(dup2(replacement.ends[0], number), number);
  newControl->setFd(number);
  ASSERT_EQ(write(peer, "x", 1), 1);
  ASSERT_EQ(write(replacement.ends[1], "x", 1), 1);
  runUntil(newOwner, 1);
  EXPECT_THAT(log, ElementsAre(at("new read ", number)));
  newControl->delFd();
  close(number);
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
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              testing::HasSubstr("Operation not permitted"));
  std::fclose(plain);
  EXPECT_DEATH(control->setFd(9999), "Assertion `flags >= 0' failed");
}

}  // namespace
