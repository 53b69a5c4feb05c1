#ifndef TARVO_SRC_UTIL_SYMBOLREADER_H
#define TARVO_SRC_UTIL_SYMBOLREADER_H

#include <cstdint>
#include <string>

namespace Tarvo::Impl {

/// Reads the symbols of one module. Implemented in libTarvoSymbols.so, which libTarvo.so loads when
/// it is first needed. That library uses nothing of libTarvo.so, and exports one function, of the
/// name below.
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

/// Makes a reader for the module that was loaded from `path`, can be read from `file`, and is
/// mapped at `begin`; null when the file cannot be read or is no module. The caller deletes the
/// reader.
using OpenModule = SymbolReader*(const char* path, const char* file, std::uintptr_t begin);

}  // namespace Tarvo::Impl

#endif
