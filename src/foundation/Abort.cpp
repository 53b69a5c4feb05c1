#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "Tarvo/Assert.h"
#include "foundation/Uncancelled.h"

namespace Tarvo::Impl {

void abortOnAssertion(const char* text, const char* file, int line, const char* func) noexcept {
  const Uncancelled whole;
  std::fprintf(stderr, "%s: %s:%d: %s: Assertion `%s' failed.\n", program_invocation_short_name,
               file, line, func, text);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Tarvo::Impl
