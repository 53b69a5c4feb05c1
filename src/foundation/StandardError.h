#ifndef TARVO_SRC_FOUNDATION_STANDARDERROR_H
#define TARVO_SRC_FOUNDATION_STANDARDERROR_H

#include <string_view>

namespace Tarvo::Impl {

/// Writes directly to the buffer of std::cerr and ignores the stream's state: after one failed
/// write elsewhere, that state would suppress every later line. Does nothing when std::cerr has no
/// buffer. A failure is not reported.
void writeStandardError(std::string_view text) noexcept;

/// The same for the last message of a process that ends. When std::cerr has no buffer it writes to
/// descriptor 2.
void writeLastWords(std::string_view text) noexcept;

}  // namespace Tarvo::Impl

#endif
