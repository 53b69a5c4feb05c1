#include "Tarvo/Socket.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/mount.h>

#include "Tarvo/Util.h"
#include "support/Test.h"

namespace {

using namespace testsupport;
using namespace Tarvo::Util;

ino_t inodeOf(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

constexpr int cannot = 77;

/// Gives the process mounts of its own and a namespace "blue" in them.
bool makeNamespace() {
  if (unshare(CLONE_NEWNS | (geteuid() == 0 ? 0 : CLONE_NEWUSER)) != 0 ||
      mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("none", "/run", "tmpfs", 0, nullptr) != 0)
    return false;
  mkpath("/run/netns", 0755);
  for (const char* file : {"/run/netns/blue", "/run/netns/plain"}) fileWrite(file, "");
  bool made = false;
  std::jthread([&] {
    made = unshare(CLONE_NEWNET) == 0 &&
           mount("/proc/thread-self/ns/net", "/run/netns/blue", "none", MS_BIND, nullptr) == 0;
  }).join();
  return made;
}

TEST(SocketTest, MakesASocketInAnotherNamespaceAndStaysInItsOwn) {
  const auto child = runForked([] {
    const auto own = inodeOf("/proc/thread-self/ns/net");
    if (!makeNamespace()) return cannot;
    const auto before = openDescriptors();
    const int fd = socketInNamespace("blue", AF_INET, SOCK_STREAM, 0);
    const auto blue = inodeOf("/proc/self/fd/" + std::to_string(ioctl(fd, SIOCGSKNS)));
    if (blue != inodeOf("/run/netns/blue") || blue == own) return 1;
    if (fcntl(fd, F_GETFD) != FD_CLOEXEC) return 2;
    std::error_code error;
    if (socketInNamespace("plain", AF_INET, SOCK_STREAM, 0, error) != -1 || !error) return 3;
    // The socket and its namespace's; nothing stays open after a failure.
    if (openDescriptors() != before + 2) return 4;
    return inodeOf("/proc/thread-self/ns/net") == own ? 0 : 5;
  });
  if (child.exitCode == cannot) GTEST_SKIP() << "cannot make a namespace";
  EXPECT_EQ(child.exitCode, 0);
}

TEST(SocketTest, RefusesNamesThatAreNoNames) {
  using namespace std::string_literals;
  for (const auto& name : {""s, "."s, "../netns/blue"s, ".."s, "a\0b"s}) {
    std::error_code error;
    EXPECT_EQ(socketInNamespace(name, AF_INET, SOCK_STREAM, 0, error), -1);
    EXPECT_EQ(error, std::errc::invalid_argument) << name;
  }
}

TEST(SocketTest, SizesTheSendBufferAndCountsWhatHasNotArrived) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  const int fd = ends[0];
  EXPECT_EQ(sendBufferSizeIs(fd, 50'000), 50'000);
  EXPECT_THAT(errorOf([&] { sendBufferSizeIs(fd, -1); }),
              HasSubstr("buffer to -1 bytes on descriptor " + std::to_string(fd) + ": Invalid"));
  EXPECT_THAT(errorOf([] { unsentBytes(-1); }), HasSubstr("descriptor -1: Bad file descriptor"));
  char byte = 'x';
  EXPECT_EQ(write(fd, &byte, 1), 1);
  EXPECT_GE(unsentBytes(fd), 1);
  EXPECT_EQ(read(ends[1], &byte, 1), 1);
  EXPECT_EQ(unsentBytes(fd), 0);
  for (const int end : ends) close(end);
}

}  // namespace
