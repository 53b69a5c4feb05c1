#include "Tarvo/Owners.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/file.h>
#include <sys/un.h>

#include "Tarvo/FileLock.h"
#include "support/Test.h"

namespace {

using namespace testsupport;
using Tarvo::OwnerSearch;
using testing::IsEmpty;
using Found = std::vector<std::tuple<pid_t, int, bool>>;  // process, descriptor, listening

Found foundBy(OwnerSearch search, unsigned portion = 1000) {
  while (search.step(portion)) {
  }
  Found found;
  for (const auto& owner : search.owners()) {
    found.emplace_back(owner.process.pid(), owner.descriptor, owner.listening);
  }
  return found;
}

/// A bound socket; a stream socket also listens.
int serve(int type, const sockaddr* address, socklen_t length) {
  const int fd = socket(address->sa_family, type, 0);
  EXPECT_EQ(bind(fd, address, length), 0);
  if (type == SOCK_STREAM) listen(fd, 5);
  return fd;
}

/// Serves at an address of either family, and tells the port that it got there.
int serve(int type, const char* host, std::uint16_t& port) {
  addrinfo* address = nullptr;
  EXPECT_EQ(getaddrinfo(host, nullptr, nullptr, &address), 0);
  const int fd = serve(type, address->ai_addr, address->ai_addrlen);
  getsockname(fd, address->ai_addr, &address->ai_addrlen);
  port = ntohs(reinterpret_cast<sockaddr_in*>(address->ai_addr)->sin_port);  // of both families
  freeaddrinfo(address);
  return fd;
}

TEST(OwnersTest, FindsWhoHoldsAPortOfEitherFamily) {
  std::uint16_t port = 0;
  for (const int type : {SOCK_STREAM, SOCK_DGRAM}) {
    for (const auto& [host, others] : {std::pair("127.0.0.1", "127.0.0.2"), {"::1", "::2"}}) {
      const int fd = serve(type, host, port);
      const WaitingChild child([] {});
      close(fd);
      const auto owner = ElementsAre(std::tuple(child.pid(), fd, true));
      const int otherType = SOCK_STREAM + SOCK_DGRAM - type;
      EXPECT_THAT(foundBy(OwnerSearch::ofPort(type, port)), owner);
      EXPECT_THAT(foundBy(OwnerSearch::ofPort(type, port, host), 1), owner) << "step by step";
      EXPECT_THAT(foundBy(OwnerSearch::ofPort(type, port, others)), IsEmpty());
      EXPECT_THAT(foundBy(OwnerSearch::ofPort(otherType, port, host)), IsEmpty());
    }
  }
}

TEST(OwnersTest, AWildcardServesEveryAddressAndAConnectionIsNoListener) {
  for (const char* any : {"0.0.0.0", "::"}) {
    sockaddr_in server{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    std::uint16_t port = 0;
    const int listener = serve(SOCK_STREAM, any, port);
    server.sin_port = htons(port);
    const int client = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(connect(client, reinterpret_cast<sockaddr*>(&server), sizeof server), 0);
    const int accepted = accept(listener, nullptr, nullptr);
    const int again = dup(accepted);  // the same socket, found once
    const auto found = [&](const char* at) {
      return foundBy(OwnerSearch::ofPort(SOCK_STREAM, port, at));
    };
    EXPECT_EQ(found("127.0.0.1"), (Found{{getpid(), listener, true}, {getpid(), accepted, false}}));
    EXPECT_EQ(found("127.0.0.9").size(), 1U);
    EXPECT_EQ(found("fe80::9").size(), any == std::string("::") ? 1U : 0U);
    for (const int fd : {listener, client, accepted, again}) close(fd);
  }
}

struct OwnersInFolderTest : TempFolder {};

TEST_F(OwnersInFolderTest, FindsUnixSocketsAndWhoSharesADescriptor) {
  const auto path = folder + "/sock et";
  for (const std::string& name : {path, std::string(1, '\0') + path, '@' + path}) {
    sockaddr_un address{AF_UNIX, ""};
    name.copy(static_cast<char*>(address.sun_path), name.size());
    if (name[0] == '@') address.sun_path[0] = '\0';
    const auto length = offsetof(sockaddr_un, sun_path) + name.size() + (name == path ? 1 : 0);
    const int fd =
        serve(SOCK_STREAM, reinterpret_cast<sockaddr*>(&address), static_cast<socklen_t>(length));
    const std::tuple own(getpid(), fd, true);
    EXPECT_THAT(foundBy(OwnerSearch::ofUnixSocket(name)), ElementsAre(own));
    EXPECT_THAT(foundBy(OwnerSearch::ofUnixSocket(name + "x")), IsEmpty());
    const WaitingChild child([&] { close(dup2(fd, fd + 20) - 20); });
    EXPECT_THAT(foundBy(OwnerSearch::ofSocket(fd)),
                testing::UnorderedElementsAre(own, std::tuple(child.pid(), fd + 20, true)));
    close(fd);
  }
}

TEST_F(OwnersInFolderTest, FindsLocksOfEachKind) {
  const auto trace = getDebugHandler("Locks");
  Tarvo::FileLock lock(*trace, folder, "lock");
  EXPECT_EQ(lock.ownerDescription(), "nobody");
  ASSERT_TRUE(lock.lock(false));
  lock.release();
  for (const int kind : {F_OFD_SETLK, F_SETLK, -1}) {
    const int fd = open(lock.file().c_str(), O_RDWR);  // which the child has too
    const WaitingChild holder([&] {
      Tarvo::Process::titleIs("holder");
      struct flock all {};
      all.l_type = F_WRLCK;
      kind < 0 ? flock(fd, LOCK_EX) : fcntl(fd, kind, &all);
    });
    close(fd);
    const WaitingChild without([&] { open(lock.file().c_str(), O_RDWR); });
    EXPECT_THAT(foundBy(OwnerSearch::ofLock(lock.file())),
                ElementsAre(std::tuple(holder.pid(), fd, false)));
    EXPECT_EQ(lock.ownerDescription(), fmt::format("process {} (holder)", holder.pid()));
  }
}

TEST(OwnersTest, RefusesWhatItCannotSearchFor) {
  EXPECT_THAT(errorOf([] { OwnerSearch::ofSocket(-1); }), HasSubstr("-1: Bad file descriptor"));
  EXPECT_THAT(errorOf([&] { OwnerSearch::ofPort(SOCK_STREAM, 1, "localhost"); }),
              HasSubstr("address localhost: Invalid argument"));
  EXPECT_THAT(errorOf([] { OwnerSearch::ofLock("/none"); }), HasSubstr("on /none: No such file"));
}

}  // namespace
