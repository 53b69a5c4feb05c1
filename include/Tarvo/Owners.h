#ifndef TARVO_OWNERS_H
#define TARVO_OWNERS_H

/// Which processes hold a socket, or a lock on a file.
///
///     auto search = Tarvo::OwnerSearch::ofPort(SOCK_STREAM, 8080);
///     while (search.step()) {}
///     for (const auto& owner : search.owners()) show(owner.process.title());
///
/// The kernel has no such list, so a search reads the open descriptors of all processes. There may
/// be many: a search works in short steps, so that a task can make steps until its quantum is used
/// up (examples/WhoListens.cpp).
/// 1. For a port or a path it reads the kernel's tables of sockets, one line per step. The tables
///    are those of the network namespace of the thread that calls step().
/// 2. It reads /proc, one process or one descriptor per step. An owner is reported with the first
///    descriptor that is found. Descriptors that are opened, closed or passed on during the search
///    may be missed.
///
/// Without privileges the kernel shows only the descriptors of the caller's own processes.
/// refused() counts the other processes: when it is above zero, owners may be missing. Where /proc
/// hides other users' processes (hidepid) they are not counted.
///
/// Making a search and stepping throw RuntimeException when /proc cannot be read, for instance for
/// want of descriptors, and NoPermissionException when the kernel refuses a table. After an
/// exception the search can be continued. A process that ends during the search is skipped. A
/// search under way has two or more descriptors open; its end or its destruction closes them. A
/// search is used by one thread at a time.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "Tarvo/Export.h"
#include "Tarvo/Process.h"
#include "Tarvo/String.h"

namespace Tarvo {

namespace Impl {
class OwnerWalk;
}

struct Owner {
  Process process;
  int descriptor;  // its number in that process; -1 when only the process is known
  ino_t inode;     // of the socket or the locked file
  bool listening;  // a socket that accepts connections, or an unconnected one of UDP
};

class TARVO_EXPORT OwnerSearch {
 public:
  /// Searches for the holders of the socket `fd`: this process and those that share the socket.
  /// Throws RuntimeException when it is no socket.
  static OwnerSearch ofSocket(int fd);
  /// Searches for all TCP sockets (SOCK_STREAM) or UDP sockets (SOCK_DGRAM) of that local port,
  /// listening or not. With an IPv4 or IPv6 address, only for sockets bound to it or to all
  /// addresses. Throws RuntimeException when `address` is no address, or `type` is another one.
  static OwnerSearch ofPort(int type, std::uint16_t port, const String& address = "");
  /// Searches for the Unix sockets bound to the path; it must be spelled as in bind(2). An abstract
  /// name begins with '@' or a zero byte. Throws RuntimeException when the path is empty or
  /// contains a line end, which the kernel's table cannot show.
  static OwnerSearch ofUnixSocket(const String& path);
  /// Searches for the holders of locks on the file: by fcntl(2), of open file descriptions, and by
  /// flock(2). Waiting processes are not reported. A process that the kernel does not let us
  /// examine is reported too, without a descriptor, when its lock is by fcntl(2) or flock(2).
  /// Throws RuntimeException when there is no such file.
  static OwnerSearch ofLock(const String& path);

  OwnerSearch(OwnerSearch&&) noexcept;
  OwnerSearch& operator=(OwnerSearch&&) noexcept;
  ~OwnerSearch();

  /// Makes up to `count` short steps. Returns whether the search must go on.
  bool step(unsigned count = 100);

  /// The owners found so far, each process once per socket.
  const std::vector<Owner>& owners() const;
  /// The number of processes so far that the kernel did not let it examine.
  std::size_t refused() const;

 private:
  explicit OwnerSearch(std::unique_ptr<Impl::OwnerWalk> walk);

  std::unique_ptr<Impl::OwnerWalk> walk_;
};

}  // namespace Tarvo

#endif
