#ifndef TARVO_SRC_UTIL_SYMBOLREADER_H
#define TARVO_SRC_UTIL_SYMBOLREADER_H

#include <cstdint>
#include <string>

namespace Tarvo::Impl {

/// Reads the symbols of one module. The library that does so is loaded when it is wanted: it uses
/// nothing of libTarvo.so, which reaches it by the name below alone.
class SymbolReader {
 public:
  struct Place {
    std::string function;  // as the linker knows it
    std::string file;
    int line = 0;
  };
  virtual ~SymbolReader() = default;
  virtual Place at(std::uintptr_t address) = 0;
};

constexpr const char* openModuleName = "tarvoOpenModule";

/// For a module that was loaded from `path`, and can be read from `file`, with its first byte at
/// `begin`; null when the file cannot be read or is none of this kind. The caller deletes it.
using OpenModule = SymbolReader*(const char* path, const char* file, std::uintptr_t begin);

}  // namespace Tarvo::Impl

#endif
