#ifndef TARVO_HASHMIX_H
#define TARVO_HASHMIX_H

/// A fast hash, not for cryptography: FNV-1a on words instead of bytes. Its values may be stored
/// and exchanged; they are the same on every machine and in every version.
///
///     const std::uint32_t bucket = Tarvo::Util::hash("poll") % primeBucketCount;
///
/// The low bits of a result are mixed less well than the high ones: do not use them to index a
/// table whose size is a power of two. Any thread may hash.

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "Tarvo/Export.h"

namespace Tarvo {

namespace Impl {

/// The state of a hash. `Word` is an unsigned integer of 32 or 64 bits. Two calls give the same
/// value as one call over the joined input only if the length of the first input is a multiple of
/// the word size.
template <typename Word>
class HashMix {
 public:
  static constexpr bool wide = sizeof(Word) == 8;
  static constexpr Word initial = wide ? static_cast<Word>(0xCBF29CE484222325U) : 0x811C9DC5U;
  static constexpr Word prime = wide ? static_cast<Word>(0x100000001B3U) : 0x01000193U;

  explicit HashMix(Word state = initial) : state_(state) {}

  void mix(const void* data, std::size_t len);
  void mix(std::string_view text) { mix(text.data(), text.size()); }

  /// mix(), inline. An incomplete last word is padded with zeros; an empty input changes nothing.
  void mixInline(const void* data, std::size_t len) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    for (; len >= sizeof(Word); len -= sizeof(Word), bytes += sizeof(Word)) {
      step(littleEndian(bytes, sizeof(Word)));
    }
    if (len > 0) step(littleEndian(bytes, len));
  }

  /// The same for a length known beforehand: 1, 2, 4 or 8.
  template <std::size_t len>
  void mixFixedLen(const void* data) {
    static_assert(len == 1 || len == 2 || len == 4 || len == 8);
    mixInline(data, len);
  }

  Word value() const { return state_; }

 private:
  void step(Word word) { state_ = (state_ ^ word) * prime; }

  static Word littleEndian(const unsigned char* bytes, std::size_t len) {
    Word word = 0;
    std::memcpy(&word, bytes, len);
    if constexpr (std::endian::native == std::endian::little) return word;
    return wide ? static_cast<Word>(__builtin_bswap64(word))
                : static_cast<Word>(__builtin_bswap32(static_cast<std::uint32_t>(word)));
  }

  Word state_;
};

extern template class TARVO_EXPORT HashMix<std::uint32_t>;
extern template class TARVO_EXPORT HashMix<std::uint64_t>;

}  // namespace Impl

namespace Util {

TARVO_EXPORT std::uint32_t hash(const void* data, std::size_t len);
TARVO_EXPORT std::uint32_t hash(std::string_view text);
TARVO_EXPORT std::uint64_t hash64(const void* data, std::size_t len);

}  // namespace Util

}  // namespace Tarvo

#endif
