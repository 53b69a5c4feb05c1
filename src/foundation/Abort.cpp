#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "Tarvo/Assert.h"

namespace Tarvo::Impl {

void abortOnAssertion(const char* text, const char* file, int line, const char* func) noexcept {
  std::fprintf(stderr, "%s: %s:%d: %s: Assertion `%s' failed.\n", program_invocation_short_name,
               file, line, func, text);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Tarvo::Impl
