#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>

#include "Tarvo/FileLock.h"
#include "Tarvo/Owners.h"
#include "support/ChildProcess.h"
#include "support/Failure.h"

namespace {

using Tarvo::OwnerSearch;
using Tarvo::Process;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testsupport::errorOf;
using testsupport::WaitingChild;
using Found = std::vector<std::tuple<pid_t, int, bool>>;  // process, descriptor, listening

Found foundBy(OwnerSearch search, unsigned portion = 1000) {
  while (search.step(portion)) {
  }
  EXPECT_FALSE(search.step());
  Found found;
  for (const auto& owner : search.owners()) {
    EXPECT_EQ(owner.process, Process::of(owner.process.pid()));
    found.emplace_back(owner.process.pid(), owner.descriptor, owner.listening);
  }
  return found;
}

struct Address : sockaddr_storage {
  Address(int family, const char* host) : sockaddr_storage() {
    ss_family = static_cast<sa_family_t>(family);
    if (family == AF_INET) inet_pton(family, host, &as<sockaddr_in>().sin_addr);
    if (family == AF_INET6) inet_pton(family, host, &as<sockaddr_in6>().sin6_addr);
  }
  template <typename Kind>
  Kind& as() {
    return reinterpret_cast<Kind&>(*this);
  }
  std::uint16_t port() { return ntohs(as<sockaddr_in>().sin_port); }  // the same in both families
};

/// A bound socket; a stream socket also listens.
int serve(int type, Address& address, socklen_t length = sizeof(Address)) {
  const int fd = socket(address.ss_family, type, 0);
  auto& general = address.as<sockaddr>();
  if (bind(fd, &general, length) != 0) return -1;
  if (type == SOCK_STREAM) listen(fd, 5);
  length = sizeof address;
  getsockname(fd, &general, &length);
  return fd;
}

TEST(OwnersTest, FindsWhoHoldsAPortOfEitherFamily) {
  for (const int type : {SOCK_STREAM, SOCK_DGRAM}) {
    for (const auto& [family, host, others] :
         {std::tuple(AF_INET, "127.0.0.1", "127.0.0.2"), std::tuple(AF_INET6, "::1", "::2")}) {
      Address address(family, host);
      const int fd = serve(type, address);
      if (fd < 0) GTEST_SKIP() << "no address " << host;
      const WaitingChild child([] {});
      close(fd);
      const auto owner = ElementsAre(std::tuple(child.pid(), fd, true));
      const auto port = address.port();
      EXPECT_THAT(foundBy(OwnerSearch::ofPort(type, port)), owner);
      EXPECT_THAT(foundBy(OwnerSearch::ofPort(type, port, host), 1), owner) << "step by step";
      EXPECT_THAT(foundBy(OwnerSearch::ofPort(type, port, others)), IsEmpty());
      EXPECT_THAT(foundBy(OwnerSearch::ofPort(SOCK_STREAM + SOCK_DGRAM - type, port, host)),
                  IsEmpty());
    }
  }
}

TEST(OwnersTest, AWildcardServesEveryAddressAndAConnectionIsNoListener) {
  for (const int family : {AF_INET, AF_INET6}) {
    Address address(family, family == AF_INET ? "0.0.0.0" : "::");
    const int listener = serve(SOCK_STREAM, address);
    const auto port = address.port();
    Address server(AF_INET, "127.0.0.1");
    server.as<sockaddr_in>().sin_port = htons(port);
    const int client = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(connect(client, &server.as<sockaddr>(), sizeof(sockaddr_in)), 0);
    const int accepted = accept(listener, nullptr, nullptr);
    const int again = dup(accepted);  // the same socket, found once
    EXPECT_THAT(
        foundBy(OwnerSearch::ofPort(SOCK_STREAM, port, "127.0.0.1")),
        ElementsAre(std::tuple(getpid(), listener, true), std::tuple(getpid(), accepted, false)));
    EXPECT_EQ(foundBy(OwnerSearch::ofPort(SOCK_STREAM, port, "127.0.0.9")).size(), 1U);
    EXPECT_EQ(foundBy(OwnerSearch::ofPort(SOCK_STREAM, port, "fe80::9")).size(),
              family == AF_INET ? 0U : 1U);
    for (const int fd : {listener, client, accepted, again}) close(fd);
  }
}

TEST(OwnersTest, FindsUnixSocketsAndWhoSharesADescriptor) {
  const std::string path = testing::TempDir() + "sock et." + std::to_string(getpid());
  for (const std::string& name : {path, std::string(1, '\0') + path, '@' + path}) {
    Address address(AF_UNIX, "");
    std::string bound = name;
    if (bound[0] == '@') bound[0] = '\0';
    memcpy(static_cast<char*>(address.as<sockaddr_un>().sun_path), bound.data(), bound.size());
    const auto length = offsetof(sockaddr_un, sun_path) + name.size() + (name == path ? 1 : 0);
    const int fd = serve(SOCK_STREAM, address, static_cast<socklen_t>(length));
    ASSERT_GE(fd, 0);
    EXPECT_THAT(foundBy(OwnerSearch::ofUnixSocket(name)),
                ElementsAre(std::tuple(getpid(), fd, true)));
    EXPECT_THAT(foundBy(OwnerSearch::ofUnixSocket(name + "x")), IsEmpty());
    const WaitingChild child([&] { close(dup2(fd, fd + 20) - 20); });
    EXPECT_THAT(foundBy(OwnerSearch::ofSocket(fd)),
                testing::UnorderedElementsAre(std::tuple(getpid(), fd, true),
                                              std::tuple(child.pid(), fd + 20, true)));
    close(fd);
  }
  std::filesystem::remove(path);
}

TEST(OwnersTest, FindsLocksOfEachKindAndSaysWhatItMayNotSee) {
  const auto trace = Tarvo::Platform::getDebugHandler("Locks");
  const std::string folder = testing::TempDir() + "owners." + std::to_string(getpid());
  Tarvo::FileLock lock(*trace, folder, "lock");
  EXPECT_EQ(lock.ownerDescription(), "nobody");
  ASSERT_TRUE(lock.lock(false));
  lock.release();
  std::filesystem::permissions(folder, std::filesystem::perms::all);
  EXPECT_EQ(lock.ownerDescription(), "nobody");
  for (const std::string kind : {"file", "process", "flock"}) {
    const int fd = open(lock.file().c_str(), O_RDWR);  // which the child has too
    const WaitingChild holder([&] {
      Process::titleIs("holder");
      struct flock all {};
      all.l_type = F_WRLCK;
      if (kind == "flock") flock(fd, LOCK_EX);
      if (kind == "file") fcntl(fd, F_OFD_SETLK, &all);
      if (kind == "process") fcntl(fd, F_SETLK, &all);
    });
    close(fd);
    const WaitingChild without([&] { open(lock.file().c_str(), O_RDWR); });
    const auto owner = ElementsAre(std::tuple(holder.pid(), fd, false));
    EXPECT_THAT(foundBy(OwnerSearch::ofLock(lock.file())), owner) << kind;
    const auto shown = "process " + std::to_string(holder.pid()) + " (holder)";
    EXPECT_EQ(lock.ownerDescription(), shown);
    const bool other = lock.lock(false);
    EXPECT_EQ(other, kind == "flock") << "its locks are of another family";
    if (other) lock.release();
    const auto stranger = testsupport::runForked([&] {
      if (geteuid() != 0 || seteuid(65534) != 0) return 2;
      const auto text = Tarvo::FileLock(*trace, folder, "lock").ownerDescription();
      const auto known = (kind == "file" ? "" : shown + ", ");
      const auto left = text.starts_with(known) ? text.substr(known.size()) : "another";
      std::printf("%s", text.c_str());
      return std::isdigit(left[0]) != 0 && left.ends_with(" could not be looked at") ? 0 : 1;
    });
    EXPECT_TRUE(stranger.exitCode == 0 || geteuid() != 0) << kind << ": " << stranger.out;
  }
  std::filesystem::remove_all(folder);
}

TEST(OwnersTest, RefusesWhatItCannotSearchFor) {
  EXPECT_THAT(errorOf([] { OwnerSearch::ofSocket(-1); }), HasSubstr("-1: Bad file descriptor"));
  const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
  EXPECT_THAT(errorOf([&] { OwnerSearch::ofSocket(null); }),
              HasSubstr("Socket operation on non-socket"));
  close(null);
  for (const std::string address : {"1.2.3", "localhost", "::1%lo", "[::1]"}) {
    EXPECT_THAT(errorOf([&] { OwnerSearch::ofPort(SOCK_STREAM, 1, address); }),
                HasSubstr("address " + address + ": Invalid argument"));
  }
  EXPECT_THAT(errorOf([] { OwnerSearch::ofUnixSocket("a\nb"); }), HasSubstr("Invalid argument"));
  EXPECT_THAT(errorOf([] { OwnerSearch::ofLock("/none"); }), HasSubstr("on /none: No such file"));
}

}  // namespace
