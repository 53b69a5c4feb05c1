#ifndef TARVO_UTIL_H
#define TARVO_UTIL_H

/// Small helpers for files; brings Util::hash() too.

#include <sys/types.h>

#include "Tarvo/Export.h"
#include "Tarvo/HashMix.h"  // IWYU pragma: export
#include "Tarvo/String.h"

namespace Tarvo::Util {

/// Creates a directory and whatever parents it lacks, as mkdir(2) does for one: with `mode`, less
/// the caller's umask, and with 0 on success or -1 and errno. A path that is there already gives
/// EEXIST, as does an empty one, the current directory. Slashes may be doubled and trail.
///
///     if (Tarvo::Util::mkpath("/run/service/locks", 0755) != 0 && errno != EEXIST) giveUp();
TARVO_EXPORT int mkpath(const String& path, mode_t mode);

}  // namespace Tarvo::Util

#endif
