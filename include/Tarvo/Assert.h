#ifndef TARVO_ASSERT_H
#define TARVO_ASSERT_H

/// Assertion statements. None is ever compiled out.
///
///     TARVO_ASSERT(size <= limit, "{} bytes do not fit in {}", size, limit);
///     TARVO_FAIL("unknown state {}", state);
///     TARVO_CHECK(flags >= 0);
///     TARVO_ABORT("task {} is linked twice", name);
///
/// The first two take the assertion path: AssertException, or a report and the end of the process,
/// as throwOnAssertFailIs() says. The message reads "file:line: Scope::function() text". The last
/// two always abort, whatever the switch says: they are for invariants after whose loss no handler
/// should run. They print "program: file:line: function: Assertion `text' failed.", with the
/// expression or the text letter for letter.
///
/// "Scope::function() " stands in every message by one rule, see FunctionScope.h. Format strings
/// are checked when they are compiled; arguments are evaluated only when the assertion fails and
/// are shown as displayed() says. Each statement may stand in a constexpr function.

#include <exception>

#include "Tarvo/Exception.h"
#include "Tarvo/Export.h"
#include "Tarvo/Fmt.h"
#include "Tarvo/FunctionScope.h"

/// The file that statements name. A module that is spread over several files may define one name
/// for them before its first include.
#ifndef TARVO_FILE
#define TARVO_FILE __FILE__
#endif

namespace Tarvo::Impl {

/// Prints the line of a failed plain assertion to standard error and aborts.
[[noreturn]] TARVO_EXPORT void abortOnAssertion(const char* text, const char* file, int line,
                                                const char* func) noexcept;

/// The condition of a TARVO_CHECK. A comma would otherwise leave the text as the condition.
template <typename Condition, typename... More>
[[gnu::always_inline]] constexpr bool holds(const Condition& condition, const More&...) {
  static_assert(sizeof...(More) == 0,
                "TARVO_CHECK takes a condition alone: write condition && \"text\"");
  return static_cast<bool>(condition);
}

/// The two below fall back to the bare format when an argument cannot be shown. `function` is the
/// compiler's description of it, or one like that.
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

/// Runs the checks of a destructor. What they throw ends the process, with its report: when it left
/// the destructor by itself, the compiler could end the process without one.
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

#define TARVO_CHECK(...)                                                     \
  (::Tarvo::Impl::holds(__VA_ARGS__)                                         \
       ? static_cast<void>(0)                                                \
       : ::Tarvo::Impl::abortOnAssertion(#__VA_ARGS__, TARVO_FILE, __LINE__, \
                                         static_cast<const char*>(__PRETTY_FUNCTION__)))

#define TARVO_ABORT(...)                             \
  ::Tarvo::Impl::abortWithText(TARVO_FILE, __LINE__, \
                               static_cast<const char*>(__PRETTY_FUNCTION__), __VA_ARGS__)

#endif
