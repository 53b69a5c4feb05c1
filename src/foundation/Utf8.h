#ifndef TARVO_SRC_FOUNDATION_UTF8_H
#define TARVO_SRC_FOUNDATION_UTF8_H

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "Tarvo/String.h"

namespace Tarvo::Impl {

/// What stands at the start of a text. A byte that belongs to no well-formed character has a
/// negative code.
struct Character {
  std::size_t length;
  std::int32_t code;
};

/// REQUIRES: a text that is not empty.
Character firstCharacter(std::string_view text);

/// Stands for a byte that belongs to no character: U+FFFD.
constexpr std::string_view replacementCharacter = "\xEF\xBF\xBD";

/// The text as valid UTF-8, with U+FFFD for each byte that belongs to no well-formed character.
String validUtf8(std::string_view text);

}  // namespace Tarvo::Impl

#endif
