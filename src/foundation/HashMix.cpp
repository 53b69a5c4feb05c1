#include "Tarvo/HashMix.h"

namespace Tarvo {

namespace Impl {

template <typename Word>
void HashMix<Word>::mix(const void* data, std::size_t len) {
  mixInline(data, len);
}

template class HashMix<std::uint32_t>;
template class HashMix<std::uint64_t>;

}  // namespace Impl

namespace Util {

std::uint32_t hash(const void* data, std::size_t len) {
  Impl::HashMix<std::uint32_t> state;
  state.mixInline(data, len);
  return state.value();
}

std::uint32_t hash(std::string_view text) { return hash(text.data(), text.size()); }

std::uint64_t hash64(const void* data, std::size_t len) {
  Impl::HashMix<std::uint64_t> state;
  state.mixInline(data, len);
  return state.value();
}

}  // namespace Util

}  // namespace Tarvo
