#include "reports/Utf8.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdint>

namespace Tarvo::Impl {

namespace {

constexpr std::string_view replacement = "\xEF\xBF\xBD";

/// The length of the well-formed character at the start, or 0. (Unicode 15, table 3-7.)
std::size_t characterLength(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
  const std::uint8_t lead = byte(0);
  if (lead < 0x80) return 1;
  const std::size_t length = lead < 0xC2   ? 0
                             : lead < 0xE0 ? 2
                             : lead < 0xF0 ? 3
                             : lead < 0xF5 ? 4
                                           : 0;
  if (length == 0 || text.size() < length) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
  }
  const bool tooLong = (lead == 0xE0 && byte(1) < 0xA0) || (lead == 0xF0 && byte(1) < 0x90);
  const bool surrogate = lead == 0xED && byte(1) >= 0xA0;
  const bool tooLarge = lead == 0xF4 && byte(1) >= 0x90;
  return tooLong || surrogate || tooLarge ? 0 : length;
}

}  // namespace

String validUtf8(std::string_view text) {
  String valid;
  valid.reserve(text.size());
  while (!text.empty()) {
    const std::size_t length = characterLength(text);
    valid += length == 0 ? replacement : text.substr(0, length);
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return valid;
}

String tableText(std::string_view text, std::size_t width) {
  // No character is wider than two columns or longer than four bytes.
  String valid = validUtf8(text.substr(0, 4 * width));
  for (std::size_t i = 0; i < valid.size(); ++i) {
    const auto c = static_cast<unsigned char>(valid[i]);
    // The control characters beyond ASCII too, which some terminals obey.
    const bool c1 = c == 0xC2 && static_cast<unsigned char>(valid[i + 1]) < 0xA0;
    if (c1) valid.erase(i, 1);
    if (c < 0x20 || c == 0x7F || c1) valid[i] = '?';
  }
  const String cut = fmt::format("{:.{}}", valid, width);
  const bool whole = cut.size() == valid.size() && text.size() <= 4 * width;
  return whole ? cut : fmt::format("{:.{}}\u2026", valid, width - 1);
}

std::size_t columns(std::string_view text) {
  // Padding by n columns adds a blank for each that the text leaves free.
  const std::size_t most = 2 * text.size();
  const std::size_t padded = fmt::formatted_size("{:<{}}", text, most);
  return most - (padded - text.size());
}

}  // namespace Tarvo::Impl
