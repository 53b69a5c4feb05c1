#include "Tarvo/Assert.h"

namespace Tarvo::Impl {

namespace {

/// What `build` makes, or the bare format when an argument throws: a failed assertion must end as
/// one whatever its arguments do.
template <typename Build>
String messageOr(fmt::string_view format, Build build) {
  try {
    return build();
  } catch (...) {
    return String(format.data(), format.size());
  }
}

}  // namespace

void vabortWithText(const char* file, int line, const char* func, fmt::string_view format,
                    fmt::format_args args) noexcept {
  const String text = messageOr(format, [&] { return fmt::vformat(format, args); });
  abortOnAssertion(text.c_str(), file, line, func);
}

void vassertFailed(const char* file, int line, const ScopeNames& scope, fmt::string_view format,
                   fmt::format_args args) {
  AssertException::throwException(messageOr(format, [&] {
    return Fmt::Impl::vformatstr(file, line, scope.withFunc(), scope.func, scope.className, format,
                                 args);
  }));
}

}  // namespace Tarvo::Impl
