#ifndef TARVO_FMT_H
#define TARVO_FMT_H

/// Message text: how statements format their arguments, and the functions that build a message.
///
/// Foundation code uses this header too, so it depends only on the formatting library. To write a
/// line it calls the trace writer through a weak reference.

#include <fmt/format.h>
#include <fmt/ostream.h>

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string_view>
#include <type_traits>

#include "Tarvo/DisplayPointer.h"
#include "Tarvo/Export.h"
#include "Tarvo/String.h"

namespace Tarvo::Impl {

template <typename T>
concept Streamable = requires(std::ostream& out, const T& value) {
  out << value;
};

/// The form in which a message shows `value`: pointers as DisplayPointer does, text and numbers as
/// the formatting library does, objects through their formatter or else their output operator. A
/// null character pointer shows as "NULL".
template <typename T>
decltype(auto) displayed(const T& value) {
  using Plain = std::decay_t<T>;
  if constexpr (std::is_same_v<Plain, char*> || std::is_same_v<Plain, const char*>) {
    const char* text = value;
    return fmt::string_view(text != nullptr ? text : "NULL");
  } else if constexpr (std::is_null_pointer_v<Plain>) {
    return DisplayPointer(nullptr);
  } else if constexpr (std::is_pointer_v<Plain> &&
                       std::is_function_v<std::remove_pointer_t<Plain>>) {
    return DisplayPointer(reinterpret_cast<const void*>(value));
  } else if constexpr (std::is_pointer_v<Plain>) {
    return DisplayPointer(const_cast<const void*>(static_cast<const volatile void*>(value)));
  } else if constexpr (std::is_arithmetic_v<T> ||
                       std::is_convertible_v<const T&, fmt::string_view> ||
                       std::is_convertible_v<const T&, std::string_view> ||
                       fmt::has_formatter<T, fmt::format_context>::value || !Streamable<T>) {
    return static_cast<const T&>(value);
  } else {
    return fmt::streamed(value);
  }
}

template <typename T>
using Displayed = std::remove_cvref_t<decltype(displayed(std::declval<const T&>()))>;

}  // namespace Tarvo::Impl

template <>
struct fmt::formatter<Tarvo::DisplayPointer> : fmt::ostream_formatter {};

namespace Tarvo::Fmt::Impl {

/// Builds a message as buildMessageBuffer() does and writes it as a trace line of `handler`, a
/// Platform::DebugHandler.
TARVO_EXPORT void vfmtrace(const void* handler, unsigned level, const char* file, bool withFunc,
                           const char* func, const char* className, int line,
                           fmt::string_view format, fmt::format_args args);

/// Passes a finished message to the trace writer; aborts when none is linked into the program.
TARVO_EXPORT void dumpDebugMsg(const char* msg, std::size_t len, std::uint32_t level,
                               const void* handler, const char* file, const char* func, int line);

/// Replaces the contents of `buffer` by the message.
TARVO_EXPORT void buildMessageBuffer(fmt::memory_buffer& buffer, bool withFunc, const char* func,
                                     const char* className, fmt::string_view format,
                                     fmt::format_args args);

/// Appends "className::func() " when `withFunc` (both names are then required), and the message.
TARVO_EXPORT void buildMessageBufferInternal(fmt::memory_buffer& buffer, bool withFunc,
                                             const char* func, const char* className,
                                             fmt::string_view format, fmt::format_args args);

/// Replaces the contents of `buffer` by "file:line: " and the message.
TARVO_EXPORT void buildDetailedMessageBuffer(fmt::memory_buffer& buffer, const char* file, int line,
                                             bool withFunc, const char* func, const char* className,
                                             fmt::string_view format, fmt::format_args args);

/// The text of buildMessageBuffer().
TARVO_EXPORT String vformatstr(bool withFunc, const char* func, const char* className,
                               fmt::string_view format, fmt::format_args args);

/// The text of buildDetailedMessageBuffer(): what an assertion failure says.
TARVO_EXPORT String vformatstr(const char* file, int line, bool withFunc, const char* func,
                               const char* className, fmt::string_view format,
                               fmt::format_args args);

}  // namespace Tarvo::Fmt::Impl

namespace Tarvo::Fmtrace::Impl {

/// Appends formatted text to the buffer of `context`. For formatters that use a format string of
/// their own.
TARVO_EXPORT fmt::format_context::iterator vformat_to(fmt::format_context& context,
                                                      fmt::string_view format,
                                                      fmt::format_args args);

}  // namespace Tarvo::Fmtrace::Impl

#endif
