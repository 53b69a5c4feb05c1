#ifndef TARVO_DETAIL_CHECK_H
#define TARVO_DETAIL_CHECK_H

/// The plain check of Tarvo/Assert.h, for headers that must not include the formatting library.

#include "Tarvo/Export.h"

/// The file that statements name. A module that is spread over several files may define one name
/// for them before its first include.
#ifndef TARVO_FILE
#define TARVO_FILE __FILE__
#endif

namespace Tarvo::Impl {

/// Prints the line of a failed plain assertion to standard error and aborts.
[[noreturn]] TARVO_EXPORT void abortOnAssertion(const char* text, const char* file, int line,
                                                const char* func) noexcept;

/// The condition of a TARVO_CHECK. Refuses TARVO_CHECK(condition, "text"): as a comma expression it
/// would test the text, which is always true.
template <typename Condition, typename... More>
[[gnu::always_inline]] constexpr bool holds(const Condition& condition, const More&...) {
  static_assert(sizeof...(More) == 0,
                "TARVO_CHECK takes a condition alone: write condition && \"text\"");
  return static_cast<bool>(condition);
}

}  // namespace Tarvo::Impl

#define TARVO_CHECK(...)                                                     \
  (::Tarvo::Impl::holds(__VA_ARGS__)                                         \
       ? static_cast<void>(0)                                                \
       : ::Tarvo::Impl::abortOnAssertion(#__VA_ARGS__, TARVO_FILE, __LINE__, \
                                         static_cast<const char*>(__PRETTY_FUNCTION__)))

/// Aborts like a failed TARVO_CHECK with the text in place of its condition.
#define TARVO_CHECK_FAILED(text)                              \
  ::Tarvo::Impl::abortOnAssertion(text, TARVO_FILE, __LINE__, \
                                  static_cast<const char*>(__PRETTY_FUNCTION__))

#endif
