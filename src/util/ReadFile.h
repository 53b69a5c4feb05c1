#ifndef TARVO_SRC_UTIL_READFILE_H
#define TARVO_SRC_UTIL_READFILE_H

#include <cstddef>

#include "Tarvo/String.h"

namespace Tarvo::Impl {

/// Reads a file to its end, whatever size it reports. Returns 0, or an errno and no contents; EFBIG
/// for more than `limit` bytes. A relative path starts at the open directory `folder`.
int readFile(int folder, const char* path, std::size_t limit, String& contents);

}  // namespace Tarvo::Impl

#endif
