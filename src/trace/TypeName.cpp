#include "Tarvo/TypeName.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>

#include "Tarvo/Assert.h"

namespace Tarvo {

String typeName(const char* mangledName) {
  if (mangledName == nullptr) return "";
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> readable(
      abi::__cxa_demangle(mangledName, nullptr, nullptr, &status), std::free);
  if (status != 0) return mangledName;
  TARVO_ASSERT(readable != nullptr, "unable to demangle type {} status:{}", mangledName, status);
  return readable.get();
}

}  // namespace Tarvo
