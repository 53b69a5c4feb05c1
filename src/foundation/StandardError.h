#ifndef TARVO_SRC_FOUNDATION_STANDARDERROR_H
#define TARVO_SRC_FOUNDATION_STANDARDERROR_H

#include <string_view>

namespace Tarvo::Impl {

/// Writes to the buffer of std::cerr, past the stream's state: one failed write elsewhere must not
/// silence every later line. Does nothing when the program has taken the buffer away; a failure is
/// not reported.
void writeStandardError(std::string_view text) noexcept;

/// The same for what a dying process says: without a buffer it goes to the descriptor.
void writeLastWords(std::string_view text) noexcept;

}  // namespace Tarvo::Impl

#endif
