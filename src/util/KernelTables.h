#ifndef TARVO_SRC_UTIL_KERNELTABLES_H
#define TARVO_SRC_UTIL_KERNELTABLES_H

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

#include "Tarvo/String.h"
#include "util/OwnedFd.h"

namespace Tarvo::Impl {

/// Reads a table of /proc line by line, and only as far as the caller asks: a table may be long.
class TableReader {
 public:
  /// False when there is no such table.
  bool open(const char* path);
  /// The next line without its line end, valid until the next call; none after the last one.
  std::optional<std::string_view> next();

 private:
  OwnedFd file_;
  String path_;
  String text_;
  std::size_t taken_ = 0;
};

/// An IPv6 address, or an IPv4 address mapped to IPv6.
using InternetAddress = std::array<std::uint8_t, 16>;
std::optional<InternetAddress> parseAddress(const String& text);

struct InternetSocket {
  InternetAddress address;
  std::uint16_t port;
  unsigned state;
  ino_t inode;

  /// Whether the socket receives what is sent to `wanted`.
  bool servesAddress(const InternetAddress& wanted) const;
};

struct UnixSocket {
  ino_t inode;
  bool listening;
  std::string_view path;
};

struct FileLockEntry {
  pid_t pid;  // -1 for a lock of an open file description
  unsigned major, minor;
  ino_t inode;
};

/// Parse a line of a table; none for a heading and for other kinds of entries.
std::optional<InternetSocket> parseInternetSocket(std::string_view line);
std::optional<UnixSocket> parseUnixSocket(std::string_view line);
std::optional<FileLockEntry> parseFileLock(std::string_view line);

}  // namespace Tarvo::Impl

#endif
