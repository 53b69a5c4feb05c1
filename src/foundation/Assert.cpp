#include "Tarvo/Assert.h"

#include "foundation/PassCancellation.h"

namespace Tarvo::Impl {

namespace {

/// The result of build(), or the format string alone when formatting an argument throws: a failed
/// assertion must be reported as such, whatever its arguments do.
template <typename Build>
String messageOr(fmt::string_view format, Build build) {
  try {
    return build();
  } catch (...) {
    passCancellation();
    return String(format.data(), format.size());
  }
}

}  // namespace

void vabortWithText(const char* file, int line, const char* func, fmt::string_view format,
                    fmt::format_args args) noexcept {
  const String text = messageOr(format, [&] { return fmt::vformat(format, args); });
  abortOnAssertion(text.c_str(), file, line, func);
}

void vassertFailed(const char* file, int line, const char* function, fmt::string_view format,
                   fmt::format_args args) {
  AssertException::throwException(messageOr(format, [&] {
    const ScopeViews scope = ScopeParser(function).parse();
    const String className(scope.scope);
    const String func(scope.func);
    return Fmt::Impl::vformatstr(file, line, ScopeNames{className.c_str(), func.c_str()}.withFunc(),
                                 func.c_str(), className.c_str(), format, args);
  }));
}

}  // namespace Tarvo::Impl
