#ifndef TARVO_ASSERT_H
#define TARVO_ASSERT_H

/// Assertion statements. None is ever compiled out.
///
///     TARVO_ASSERT(size <= limit, "{} bytes do not fit in {}", size, limit);
///     TARVO_FAIL("unknown state {}", state);
///     TARVO_CHECK(flags >= 0);
///     TARVO_ABORT("task {} is linked twice", name);
///
/// The first two take the assertion path: depending on throwOnAssertFailIs() they throw
/// AssertException, or report and end the process. The message reads "file:line: Scope::function()
/// text". The last two always abort, whatever the switch says. They are for invariants whose loss
/// makes it unsafe to run any handler. They print "program: file:line: function: Assertion `text'
/// failed.", with the expression or the text unchanged.
///
/// detail/FunctionScope.h says how "Scope::function() " is formed. Format strings are checked at
/// compile time. Arguments are evaluated only when the assertion fails, and are formatted by
/// displayed(). Each statement may be used in a constexpr function.

#include <exception>

#include "Tarvo/Exception.h"
#include "Tarvo/Export.h"
#include "Tarvo/Fmt.h"
#include "Tarvo/detail/Check.h"  // IWYU pragma: export
#include "Tarvo/detail/FunctionScope.h"

namespace Tarvo::Impl {

/// When formatting an argument throws, the two below print the format string alone. `function` is
/// in the form of __PRETTY_FUNCTION__.
[[noreturn]] TARVO_EXPORT void vassertFailed(const char* file, int line, const char* function,
                                             fmt::string_view format, fmt::format_args args);
[[noreturn]] TARVO_EXPORT void vabortWithText(const char* file, int line, const char* func,
                                              fmt::string_view format,
                                              fmt::format_args args) noexcept;

template <typename... Args>
[[noreturn]] [[gnu::cold]] void assertFailed(const char* file, int line, const char* function,
                                             fmt::format_string<Displayed<Args>...> format,
                                             const Args&... args) {
  vassertFailed(file, line, function, fmt::string_view(format),
                fmt::make_format_args(displayed(args)...));
}

template <typename... Args>
[[noreturn]] [[gnu::cold]] void abortWithText(const char* file, int line, const char* func,
                                              fmt::format_string<Displayed<Args>...> format,
                                              const Args&... args) noexcept {
  vabortWithText(file, line, func, fmt::string_view(format),
                 fmt::make_format_args(displayed(args)...));
}

/// Runs the checks of a destructor. An exception from them ends the process, with the terminate
/// handler's report. (An exception that left the noexcept destructor itself could end the process
/// without that report.)
template <typename Checks>
void checkInDestructor(Checks checks) noexcept {
  try {
    checks();
  } catch (...) {
    std::terminate();
  }
}

}  // namespace Tarvo::Impl

#define TARVO_FAIL(...)                                                                            \
  ::Tarvo::Impl::assertFailed(TARVO_FILE, __LINE__, static_cast<const char*>(__PRETTY_FUNCTION__), \
                              __VA_ARGS__)

#define TARVO_ASSERT(condition, ...) \
  do {                               \
    if (!(condition)) [[unlikely]]   \
      TARVO_FAIL(__VA_ARGS__);       \
  } while (false)

#define TARVO_ABORT(...)                             \
  ::Tarvo::Impl::abortWithText(TARVO_FILE, __LINE__, \
                               static_cast<const char*>(__PRETTY_FUNCTION__), __VA_ARGS__)

#endif
