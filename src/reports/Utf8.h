#ifndef TARVO_SRC_REPORTS_UTF8_H
#define TARVO_SRC_REPORTS_UTF8_H

#include <string_view>

#include "Tarvo/String.h"

namespace Tarvo::Impl {

/// The text as valid UTF-8: each byte that belongs to no well-formed character becomes U+FFFD.
String validUtf8(std::string_view text);

/// For a table: valid UTF-8 without control characters, cut to `width` columns.
String tableText(std::string_view text, std::size_t width);

/// How many columns valid UTF-8 takes, as fmt reckons when it pads.
std::size_t columns(std::string_view text);

}  // namespace Tarvo::Impl

#endif
