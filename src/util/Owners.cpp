#include "Tarvo/Owners.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <unordered_map>
#include <utility>

#include "Tarvo/Fmt.h"
#include "util/Failed.h"
#include "util/OwnerWalk.h"
#include "util/ReadFile.h"

namespace Tarvo {

namespace {

using Impl::DescriptorWalk;
using Impl::failureText;
using Impl::OwnerWalk;

/// The inode that a link "socket:[INODE]" under /proc/PID/fd names; 0 for other links.
ino_t linkedSocket(const DescriptorWalk& walk) {
  std::array<char, 64> buffer;
  const auto name = fmt::format("fd/{}", walk.descriptor());
  const ssize_t length = readlinkat(walk.folder(), name.c_str(), buffer.data(), buffer.size());
  std::string_view link(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
  constexpr std::string_view kind = "socket:[";
  ino_t inode = 0;
  if (!link.starts_with(kind)) return inode;
  link.remove_prefix(kind.size());
  std::from_chars(link.data(), link.data() + link.size(), inode);
  return inode;
}

bool acceptsConnections(int fd) {
  int accepts = 0;
  socklen_t length = sizeof accepts;
  return getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &accepts, &length) == 0 && accepts != 0;
}

class Sockets : public OwnerWalk {
 public:
  using OwnerWalk::OwnerWalk;
  void seek(ino_t inode, bool listening) {
    if (inode != 0) sought_.emplace(inode, listening);  // sockets in TIME_WAIT have inode 0
  }

 private:
  void takeLine(std::string_view) override {}
  bool worthWalking() const override { return !sought_.empty(); }
  void look(const DescriptorWalk& walk) override {
    const auto found = sought_.find(linkedSocket(walk));
    if (found != sought_.end()) addHere(walk, found->first, found->second);
  }

  std::unordered_map<ino_t, bool> sought_;  // by inode: whether the socket listens
};

class InternetSockets : public Sockets {
 public:
  InternetSockets(bool stream, std::uint16_t port, std::optional<Impl::InternetAddress> address)
      : Sockets(stream ? std::vector{"/proc/thread-self/net/tcp", "/proc/thread-self/net/tcp6"}
                       : std::vector{"/proc/thread-self/net/udp", "/proc/thread-self/net/udp6"}),
        listening_(stream ? 10 : 7),
        port_(port),
        address_(address) {}

 private:
  void takeLine(std::string_view line) override {
    const auto socket = Impl::parseInternetSocket(line);
    if (!socket || socket->port != port_) return;
    if (address_ && !socket->servesAddress(*address_)) return;
    seek(socket->inode, socket->state == listening_);
  }

  const unsigned listening_;  // the kernel's state TCP_LISTEN, or TCP_CLOSE of unconnected UDP
  const std::uint16_t port_;
  const std::optional<Impl::InternetAddress> address_;
};

class UnixSockets : public Sockets {
 public:
  explicit UnixSockets(String path)
      : Sockets({"/proc/thread-self/net/unix"}), path_(std::move(path)) {}

 private:
  void takeLine(std::string_view line) override {
    const auto socket = Impl::parseUnixSocket(line);
    if (socket && socket->path == path_) seek(socket->inode, socket->listening);
  }

  const String path_;
};

class Locks : public OwnerWalk {
 public:
  explicit Locks(const struct stat& file) : OwnerWalk({"/proc/locks"}), file_(file) {}

 private:
  void takeLine(std::string_view line) override {
    const auto lock = Impl::parseFileLock(line);
    if (lock && lock->pid > 0 && lock->inode == file_.st_ino &&
        makedev(lock->major, lock->minor) == file_.st_dev) {
      lockers_.push_back(lock->pid);
    }
  }

  void look(const DescriptorWalk& walk) override {
    // AT_STATX_DONT_SYNC: a network file system or a FUSE daemon might never answer.
    struct statx status;
    const auto name = fmt::format("fd/{}", walk.descriptor());
    if (statx(walk.folder(), name.c_str(), AT_STATX_DONT_SYNC, STATX_INO, &status) != 0) return;
    if (status.stx_ino != file_.st_ino ||
        makedev(status.stx_dev_major, status.stx_dev_minor) != file_.st_dev) {
      return;
    }
    if (holdsLock(walk)) addHere(walk, file_.st_ino, false);
  }

  static bool holdsLock(const DescriptorWalk& walk) {
    String info;
    const auto name = fmt::format("fdinfo/{}", walk.descriptor());
    if (Impl::readFile(walk.folder(), name.c_str(), 1 << 26, info) != 0) return false;
    constexpr std::string_view mark = "\nlock:";
    for (auto at = info.find(mark); at != String::npos; at = info.find(mark, at + 1)) {
      const auto from = at + mark.size();
      const auto entry = std::string_view(info).substr(from, info.find('\n', from) - from);
      if (Impl::parseFileLock(entry)) return true;
    }
    return false;
  }

  /// The process number in /proc/locks is that of the process that took the lock, which may have
  /// passed it on and ended. So it is used only for processes whose descriptors we could not
  /// examine.
  void complete(const DescriptorWalk& walk) override {
    for (const pid_t pid : lockers_) {
      const auto& refused = walk.refused();
      if (!std::binary_search(refused.begin(), refused.end(), pid)) continue;
      if (const auto process = Process::of(pid)) add(*process, -1, file_.st_ino, false);
    }
  }

  const struct stat file_;
  std::vector<pid_t> lockers_;
};

}  // namespace

OwnerSearch OwnerSearch::ofSocket(int fd) {
  struct stat status;
  const int error = fstat(fd, &status) != 0 ? errno : S_ISSOCK(status.st_mode) ? 0 : ENOTSOCK;
  if (error != 0) {
    RuntimeException::throwException(
        failureText("search for the owners of descriptor", fmt::to_string(fd), error));
  }
  auto search = std::make_unique<Sockets>(std::vector<const char*>());
  search->seek(status.st_ino, acceptsConnections(fd));
  return OwnerSearch(std::move(search));
}

OwnerSearch OwnerSearch::ofPort(int type, std::uint16_t port, const String& address) {
  const auto parsed = Impl::parseAddress(address);
  if (!parsed && !address.empty()) {
    RuntimeException::throwException(failureText("search for owners of address", address, EINVAL));
  }
  if (type != SOCK_STREAM && type != SOCK_DGRAM) {
    RuntimeException::throwException(
        failureText("search for owners of sockets of type", fmt::to_string(type), ESOCKTNOSUPPORT));
  }
  return OwnerSearch(std::make_unique<InternetSockets>(type == SOCK_STREAM, port, parsed));
}

OwnerSearch OwnerSearch::ofUnixSocket(const String& path) {
  if (path.empty() || path.find('\n') != String::npos) {
    RuntimeException::throwException(failureText("search for owners of Unix path", path, EINVAL));
  }
  String shown = path;  // as the kernel's table shows it
  std::replace(shown.begin(), shown.end(), '\0', '@');
  return OwnerSearch(std::make_unique<UnixSockets>(std::move(shown)));
}

OwnerSearch OwnerSearch::ofLock(const String& path) {
  struct stat status;
  const bool named = path.find('\0') == String::npos;
  if (!named || stat(path.c_str(), &status) != 0) {
    RuntimeException::throwException(
        failureText("search for owners of locks on", path, named ? errno : EINVAL));
  }
  return OwnerSearch(std::make_unique<Locks>(status));
}

OwnerSearch::OwnerSearch(std::unique_ptr<OwnerWalk> walk) : walk_(std::move(walk)) {}
OwnerSearch::OwnerSearch(OwnerSearch&&) noexcept = default;
OwnerSearch& OwnerSearch::operator=(OwnerSearch&&) noexcept = default;
OwnerSearch::~OwnerSearch() = default;

bool OwnerSearch::step(unsigned count) {
  for (; count > 0; --count) {
    if (!walk_->advance()) return false;
  }
  return true;
}

const std::vector<Owner>& OwnerSearch::owners() const { return walk_->owners(); }
std::size_t OwnerSearch::refused() const { return walk_->refused(); }

}  // namespace Tarvo
