#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include "Tarvo/Socket.h"
#include "Tarvo/Util.h"
#include "support/ChildProcess.h"
#include "support/Failure.h"

namespace {

using namespace Tarvo::Util;
using testing::HasSubstr;
using testsupport::errorOf;

ino_t inodeOf(const char* path) {
  struct stat status {};
  return stat(path, &status) == 0 ? status.st_ino : 0;
}
ino_t ownNamespace() { return inodeOf("/proc/thread-self/ns/net"); }

constexpr int cannot = 77;

/// Gives the process mounts of its own and a namespace "blue" in them.
bool makeNamespace() {
  if (unshare(CLONE_NEWNS | (geteuid() == 0 ? 0 : CLONE_NEWUSER)) != 0) return false;
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return false;
  if (mount("none", "/run", "tmpfs", 0, nullptr) != 0) return false;
  mkpath("/run/netns", 0755);
  fileWrite("/run/netns/blue", "");
  fileWrite("/run/netns/plain", "");
  bool made = false;
  std::thread([&] {
    made = unshare(CLONE_NEWNET) == 0 &&
           mount("/proc/thread-self/ns/net", "/run/netns/blue", nullptr, MS_BIND, nullptr) == 0;
  }).join();
  return made;
}

TEST(SocketTest, MakesASocketInAnotherNamespaceAndStaysInItsOwn) {
  const auto child = testsupport::runForked([] {
    const auto own = ownNamespace();
    if (!makeNamespace()) {
      perror("cannot make a namespace");
      return cannot;
    }
    int failures = 0;
    const auto check = [&](bool good, const char* what) {
      if (!good || ownNamespace() != own) std::fprintf(stderr, "%d: %s\n", ++failures, what);
    };
    const int fd = socketInNamespace("blue", AF_INET, SOCK_STREAM, 0);
    const int space = ioctl(fd, SIOCGSKNS);
    check(inodeOf(("/proc/self/fd/" + std::to_string(space)).c_str()) == inodeOf("/run/netns/blue"),
          "the socket is in blue");
    check(inodeOf("/run/netns/blue") != own, "blue is another");
    check(fcntl(fd, F_GETFD) == FD_CLOEXEC, "close on exec");
    const auto refusal = [&](const char* name, int domain, const char* reason) {
      check(errorOf([&] { socketInNamespace(name, domain, SOCK_STREAM, 0); }).find(reason) !=
                std::string::npos,
            reason);
    };
    refusal("blue", 12345, "namespace blue: Address family not supported");
    refusal("plain", AF_INET, "namespace plain: Invalid argument");
    refusal("none", AF_INET, "namespace none: No such file or directory");
    refusal("../netns/blue", AF_INET, "namespace ../netns/blue: Invalid argument");
    const int next = dup(0);
    close(next);
    if (geteuid() == 0 && seteuid(65534) == 0) {
      refusal("blue", AF_INET, "namespace blue: Operation not permitted");
    }
    check(dup(0) == next, "nothing stays open after a failure");
    return failures;
  });
  if (child.exitCode == cannot) GTEST_SKIP() << child.err;
  EXPECT_EQ(child.exitCode, 0) << child.err;
}

TEST(SocketTest, RefusesNamesThatAreNoNames) {
  for (const auto& name : {std::string(), std::string("."), std::string(".."), std::string("a/b"),
                           std::string("a\0b", 3)}) {
    std::error_code error;
    EXPECT_EQ(socketInNamespace(name, AF_INET, SOCK_STREAM, 0, error), -1);
    EXPECT_EQ(error, std::errc::invalid_argument) << name;
  }
}

TEST(SocketTest, SizesTheSendBufferWithinWhatIsAllowed) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  EXPECT_EQ(sendBufferSizeIs(fd, 50'000), 50'000);
  EXPECT_EQ(sendBufferSize(fd), 50'000);
  const int least = sendBufferSizeIs(fd, 0);
  EXPECT_TRUE(least > 0 && least < 50'000) << least;
  constexpr int large = 1 << 26;
  const auto child = testsupport::runForked([&] {
    if (geteuid() == 0 && sendBufferSizeIs(fd, large) != large) return 1;
    if (geteuid() == 0 && seteuid(65534) != 0) return 2;
    return sendBufferSizeIs(fd, large) == std::stoi(fileRead("/proc/sys/net/core/wmem_max")) ? 0
                                                                                             : 3;
  });
  EXPECT_EQ(child.exitCode, 0);
  EXPECT_THAT(errorOf([&] { sendBufferSizeIs(fd, -1); }),
              HasSubstr("buffer to -1 bytes on descriptor " + std::to_string(fd) + ": Invalid"));
  EXPECT_THAT(errorOf([] { sendBufferSizeIs(-1, 1); }), HasSubstr("-1: Bad file descriptor"));
  close(fd);
  EXPECT_THAT(errorOf([] { unsentBytes(-1); }), HasSubstr("descriptor -1: Bad file descriptor"));
}

TEST(SocketTest, CountsWhatHasNotArrived) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), length), 0);
  listen(listener, 1);
  getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
  const int writer = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_EQ(connect(writer, reinterpret_cast<sockaddr*>(&address), length), 0);
  const int reader = accept(listener, nullptr, nullptr);
  EXPECT_EQ(unsentBytes(writer), 0);
  std::string block(65536, 'x');
  ssize_t sent = 0;
  for (ssize_t n = 0; n >= 0; sent += std::max<ssize_t>(n, 0)) {
    n = send(writer, block.data(), block.size(), MSG_DONTWAIT);
  }
  EXPECT_GE(unsentBytes(writer), 1000);
  while (sent > 0) {
    pollfd readable{reader, POLLIN, 0};
    ASSERT_EQ(poll(&readable, 1, 10'000), 1);
    sent -= recv(reader, block.data(), block.size(), 0);
  }
  const auto bound = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (unsentBytes(writer) != 0 && std::chrono::steady_clock::now() < bound) sched_yield();
  EXPECT_EQ(unsentBytes(writer), 0);
  for (const int fd : {writer, reader, listener}) close(fd);
}

}  // namespace
