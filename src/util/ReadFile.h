#ifndef TARVO_SRC_UTIL_READFILE_H
#define TARVO_SRC_UTIL_READFILE_H

#include <cstddef>

#include "Tarvo/String.h"

namespace Tarvo::Impl {

/// Reads a file to its end, whatever size it claims; 0, or an errno (EFBIG beyond the limit) and no
/// contents. A relative path begins at the open folder.
int readFile(int folder, const char* path, std::size_t limit, String& contents);

}  // namespace Tarvo::Impl

#endif
