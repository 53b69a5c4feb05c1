#ifndef TARVO_OWNERS_H
#define TARVO_OWNERS_H

/// Which processes hold a socket, or a lock on a file.
///
///     auto search = Tarvo::OwnerSearch::ofPort(SOCK_STREAM, 8080);
///     while (search.step()) {}
///     for (const auto& owner : search.owners()) show(owner.process.title());
///
/// The kernel keeps no such list, so a search goes over the open descriptors of all processes. That
/// may be many: a search makes one short step at a time, so that a task can go on as long as its
/// quantum lasts (examples/WhoListens.cpp).
/// 1. For a port or a path it reads the kernel's tables of sockets, a line a step. They are those
///    of the network namespace of the thread that steps.
/// 2. It goes over /proc, a process or a descriptor a step. Each owner is found with its first
///    descriptor. What comes, goes or changes hands meanwhile may be missed.
///
/// Without privileges the kernel shows only the descriptors of the own user's processes. refused()
/// counts the others: with a count above zero, owners may be missing. Where /proc hides other
/// users' processes altogether they are not counted.
///
/// Making a search and stepping throw RuntimeException when /proc cannot be read (there are no
/// descriptors left, say) and NoPermissionException when the kernel refuses a table; the search can
/// then be stepped on. A process that ends meanwhile is passed over. Two descriptors and more are
/// open while a search is under way; its end, or its destruction, closes them. A search is used by
/// one thread at a time.

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
  /// Searches for the socket that `fd` is, in this process and in those that share it. Throws
  /// RuntimeException when it is no socket.
  static OwnerSearch ofSocket(int fd);
  /// Searches for all TCP sockets (SOCK_STREAM) or UDP sockets (SOCK_DGRAM) of that local port,
  /// listening or not. With an address, of IPv4 or IPv6, only those at this address or at all of
  /// the machine's. Throws RuntimeException when `address` is none, or `type` another.
  static OwnerSearch ofPort(int type, std::uint16_t port, const String& address = "");
  /// Searches for the Unix sockets bound to the path, as it was written when they were bound. An
  /// abstract name begins with '@' or a zero byte. Throws RuntimeException when the path is empty
  /// or holds a line end, which the kernel's table cannot show.
  static OwnerSearch ofUnixSocket(const String& path);
  /// Searches for the holders of locks on the file: those of fcntl(2), of open file descriptions
  /// and of flock(2), but not for those who wait. Of a process that may not be looked at, locks of
  /// the first and last kind are known too, without a descriptor. Throws RuntimeException when
  /// there is no such file.
  static OwnerSearch ofLock(const String& path);

  OwnerSearch(OwnerSearch&&) noexcept;
  OwnerSearch& operator=(OwnerSearch&&) noexcept;
  ~OwnerSearch();

  /// Makes up to `count` short steps; whether there are more.
  bool step(unsigned count = 100);

  /// Whom it has found so far, each process once for each socket.
  const std::vector<Owner>& owners() const;
  /// How many processes the kernel has not let it look at so far.
  std::size_t refused() const;

 private:
  explicit OwnerSearch(std::unique_ptr<Impl::OwnerWalk> walk);

  std::unique_ptr<Impl::OwnerWalk> walk_;
};

}  // namespace Tarvo

#endif
