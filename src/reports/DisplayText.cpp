#include "reports/DisplayText.h"

#include <utf8proc.h>

#include "foundation/Utf8.h"

namespace Tarvo::Impl {

namespace {

constexpr std::string_view ellipsis = "\u2026";

bool hasShape(utf8proc_int32_t code) {
  switch (utf8proc_category(code)) {
    case UTF8PROC_CATEGORY_CC:
    case UTF8PROC_CATEGORY_CF:
    case UTF8PROC_CATEGORY_CN:
    case UTF8PROC_CATEGORY_ZL:
    case UTF8PROC_CATEGORY_ZP:
      return false;
    default:
      return true;
  }
}

std::string_view shownAs(const Character& character, std::string_view text) {
  if (character.code < 0) return replacementCharacter;
  return hasShape(character.code) ? text.substr(0, character.length) : "?";
}

}  // namespace

String tableText(std::string_view text, std::size_t width) {
  // Combining marks take no column, so the number of bytes needs a limit of its own.
  const std::size_t mostBytes = 8 * width;
  String shown;
  std::size_t used = 0;
  std::size_t cut = 0;  // the size of `shown` that leaves a column for the ellipsis
  while (!text.empty()) {
    const Character character = firstCharacter(text);
    const std::string_view next = shownAs(character, text);
    used += columns(next);
    if (used > width || shown.size() + next.size() > mostBytes) {
      shown.resize(cut);
      return shown += ellipsis;
    }
    shown += next;
    if (used < width) cut = shown.size();
    text.remove_prefix(character.length);
  }
  return shown;
}

std::size_t columns(std::string_view tableText) {
  std::size_t count = 0;
  while (!tableText.empty()) {
    const Character character = firstCharacter(tableText);
    count += static_cast<std::size_t>(utf8proc_charwidth(character.code));
    tableText.remove_prefix(character.length);
  }
  return count;
}

}  // namespace Tarvo::Impl
