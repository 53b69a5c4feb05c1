#include "foundation/Utf8.h"

#include <utf8proc.h>

namespace Tarvo::Impl {

Character firstCharacter(std::string_view text) {
  utf8proc_int32_t code = -1;
  const auto length = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data()),
                                       static_cast<utf8proc_ssize_t>(text.size()), &code);
  return length < 1 ? Character{1, -1} : Character{static_cast<std::size_t>(length), code};
}

String validUtf8(std::string_view text) {
  String valid;
  valid.reserve(text.size());
  while (!text.empty()) {
    const Character character = firstCharacter(text);
    valid += character.code < 0 ? replacementCharacter : text.substr(0, character.length);
    text.remove_prefix(character.length);
  }
  return valid;
}

}  // namespace Tarvo::Impl
