#ifndef TARVO_UTIL_H
#define TARVO_UTIL_H

/// Small helpers for paths and files; brings Util::hash() too.
///
///     if (Tarvo::Util::mkpath("/var/lib/service", 0755) != 0 && errno != EEXIST) giveUp();
///     Tarvo::Util::fileWrite("/var/lib/service/state", state, 0640);
///     ...
///     std::error_code error;
///     const auto saved = Tarvo::Util::fileRead("/var/lib/service/state", 1 << 20, error);
///     if (error == std::errc::no_such_file_or_directory) return startFresh();
///
/// What reads and writes comes in two forms. The one without `error` throws RuntimeException with
/// the path and the reason. The one with `error` sets it, to nothing when all went well, and throws
/// at most std::bad_alloc. A path that holds a zero byte is refused as an invalid argument. All may
/// be called from any thread.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <system_error>

#include "Tarvo/Export.h"
#include "Tarvo/HashMix.h"  // IWYU pragma: export
#include "Tarvo/String.h"

namespace Tarvo::Util {

/// Creates a directory and whatever parents it lacks, as mkdir(2) does for one: with `mode`, less
/// the caller's umask, and with 0 on success or -1 and errno. A path that is there already gives
/// EEXIST, as does an empty one, the current directory. Slashes may be doubled and trail.
TARVO_EXPORT int mkpath(const String& path, mode_t mode);

/// The path without doubled and trailing slashes and without names ".": "/a//./b/" becomes "/a/b",
/// "./" becomes ".". Names ".." stay, since what stands before them may be a link. Looks at the
/// text alone; an empty path stays empty.
TARVO_EXPORT String trimpath(const String& path);

/// The size in bytes of the file that the path, through links, leads to. Files of /proc claim 0.
TARVO_EXPORT std::uint64_t fileSize(const String& path);
TARVO_EXPORT std::uint64_t fileSize(const String& path, std::error_code& error);

inline constexpr std::size_t defaultReadLimit = std::size_t{1} << 30;

/// All bytes of a file, also of one that grows meanwhile or claims no size, as those of /proc do.
/// More than `limit` bytes are refused as file_too_large, with nothing returned. Waits as reading
/// the file does: at a pipe until its writers have closed it.
TARVO_EXPORT String fileRead(const String& path, std::size_t limit = defaultReadLimit);
TARVO_EXPORT String fileRead(const String& path, std::size_t limit, std::error_code& error);

/// Makes `contents` the whole of a file, or changes nothing. Who reads the path meanwhile, or after
/// a crash of the machine, finds all of the old file or all of the new one.
/// 1. The contents go to a new file beside it, named ".tarvo-" and two numbers, with `mode`, less
///    the caller's umask.
/// 2. That is forced to the disk and takes the old one's name; then the folder is forced to it.
/// 3. After any error the old file is back under its name, or none if there was none. Only on file
///    systems that cannot exchange two names does an error of the very last step leave the new one.
/// A process that is killed may leave the file with the temporary name behind.
///
/// A link is replaced, not followed. Directories, devices, sockets and pipes are refused. The
/// folder must be readable and writable. Owner, mode and attributes of the old file are not kept.
TARVO_EXPORT void fileWrite(const String& path, std::string_view contents, mode_t mode = 0644);
TARVO_EXPORT void fileWrite(const String& path, std::string_view contents, mode_t mode,
                            std::error_code& error);

}  // namespace Tarvo::Util

#endif
