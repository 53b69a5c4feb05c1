#ifndef TARVO_UTIL_H
#define TARVO_UTIL_H

/// Small helpers for paths and files. Includes Util::hash().
///
///     if (Tarvo::Util::mkpath("/var/lib/service", 0755) != 0 && errno != EEXIST) giveUp();
///     Tarvo::Util::fileWrite("/var/lib/service/state", state, 0640);
///     ...
///     std::error_code error;
///     const auto saved = Tarvo::Util::fileRead("/var/lib/service/state", 1 << 20, error);
///     if (error == std::errc::no_such_file_or_directory) return startFresh();
///
/// The functions that read and write have two forms. The one without `error` throws
/// RuntimeException with the path and the reason. The one with `error` sets it, clears it on
/// success, and throws at most std::bad_alloc. A path with a zero byte is an invalid argument. All
/// may be called from any thread.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <system_error>

#include "Tarvo/Export.h"
#include "Tarvo/HashMix.h"  // IWYU pragma: export
#include "Tarvo/String.h"

namespace Tarvo::Util {

/// Creates a directory and its missing parents, each with `mode` less the umask. Returns 0, or -1
/// and errno, as mkdir(2) does. A path that exists gives EEXIST, as does an empty one, which means
/// the current directory. Slashes may be doubled and trailing.
TARVO_EXPORT int mkpath(const String& path, mode_t mode);

/// The path without doubled and trailing slashes and without names ".": "/a//./b/" becomes "/a/b",
/// "./" becomes ".". Names ".." stay, since the name before may be a link. Does not access the file
/// system; an empty path stays empty.
TARVO_EXPORT String trimpath(const String& path);

/// The size of a file in bytes; links are followed. Files of /proc report 0.
TARVO_EXPORT std::uint64_t fileSize(const String& path);
TARVO_EXPORT std::uint64_t fileSize(const String& path, std::error_code& error);

inline constexpr std::size_t defaultReadLimit = std::size_t{1} << 30;

/// All bytes of a file, also of one that is growing or reports size 0, as files of /proc do. A file
/// with more than `limit` bytes gives file_too_large and no contents. Blocks as read(2) does: on a
/// pipe until its writers have closed it.
TARVO_EXPORT String fileRead(const String& path, std::size_t limit = defaultReadLimit);
TARVO_EXPORT String fileRead(const String& path, std::size_t limit, std::error_code& error);

/// Replaces the contents of a file, or changes nothing. A reader of the path, also after a crash of
/// the machine, finds either the whole old file or the whole new one.
/// 1. The contents are written to a new file in the same directory, named ".tarvo-" and two
///    numbers, with `mode` less the umask.
/// 2. The new file is synced to the disk and gets the old one's name; then the directory is synced.
/// 3. After an error the old file is back under its name, or there is none if there was none. One
///    exception: on a file system that cannot exchange two names, an error in the very last step
///    leaves the new file.
/// A process that is killed may leave the temporary file behind.
///
/// A link is replaced, not followed. Directories, devices, sockets and pipes are refused. The
/// directory must be readable and writable. Owner, mode and attributes of the old file are not
/// kept.
TARVO_EXPORT void fileWrite(const String& path, std::string_view contents, mode_t mode = 0644);
TARVO_EXPORT void fileWrite(const String& path, std::string_view contents, mode_t mode,
                            std::error_code& error);

}  // namespace Tarvo::Util

#endif
