#include "Tarvo/DisplayPointer.h"

#include <fmt/format.h>

#include <cstdint>
#include <ostream>

namespace Tarvo {

String DisplayPointer::toString() const {
  if (pointer_ == nullptr) return "NULL";
  return fmt::format("{:#010x}", reinterpret_cast<std::uintptr_t>(pointer_));
}

// Unformatted output neither uses nor resets the width and flags that the caller has set.
std::ostream& operator<<(std::ostream& out, const DisplayPointer& display) {
  const String text = display.toString();
  return out.write(text.data(), static_cast<std::streamsize>(text.size()));
}

namespace Impl {

void DisplaySubStringBase::addToStream(std::ostream& out, const char* text, unsigned begin,
                                       unsigned end) {
  if (begin < end) out.write(text + begin, static_cast<std::streamsize>(end - begin));
}

String DisplaySubStringBase::toString(const char* text, unsigned begin, unsigned end) {
  return begin < end ? String(text + begin, text + end) : String();
}

}  // namespace Impl

}  // namespace Tarvo
