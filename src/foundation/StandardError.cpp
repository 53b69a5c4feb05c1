#include "foundation/StandardError.h"

#include <unistd.h>

#include <iostream>

#include "foundation/Uncancelled.h"

namespace Tarvo::Impl {

void writeStandardError(std::string_view text) noexcept {
  const Uncancelled whole;
  std::streambuf* buffer = std::cerr.rdbuf();
  if (buffer == nullptr) return;
  try {
    buffer->sputn(text.data(), static_cast<std::streamsize>(text.size()));
    buffer->pubsync();
  } catch (...) {  // the program may have installed a buffer of its own, which throws
  }
}

void writeLastWords(std::string_view text) noexcept {
  if (std::cerr.rdbuf() != nullptr) return writeStandardError(text);
  const Uncancelled whole;
  [[maybe_unused]] const auto written = ::write(STDERR_FILENO, text.data(), text.size());
}

}  // namespace Tarvo::Impl
