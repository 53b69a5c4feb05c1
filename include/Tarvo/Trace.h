#ifndef TARVO_TRACE_H
#define TARVO_TRACE_H

/// Trace and assertion statements: the one header to include for them.
///
///     TARVO_TRACE(handle, 1, "accepted {} from {}", fd, peer);
///     TARVO_TRACE_STREAM(handle, 5, "state " << state);
///     TARVO_ASSERT_STREAM(handle, 0, bytes >= 0, "got " << bytes);
///
/// `handle` is a Debuggable (so `*this` in a class derived from it), a DebugHandler, or a plain or
/// shared pointer to one; with null nothing is traced. The arguments are evaluated only when the
/// level is on. They must not destroy the handle. TARVO_ASSERT_STREAM traces its text when the
/// level is on and then takes the assertion path; the other assertions are in Tarvo/Assert.h. Each
/// message begins with "Scope::function() ", as Tarvo/detail/FunctionScope.h describes. When
/// formatting an argument throws, the message ends with a remark about it.

#include <memory>

#include "Tarvo/Assert.h"
#include "Tarvo/Debug.h"
#include "Tarvo/Export.h"
#include "Tarvo/Fmt.h"
#include "Tarvo/detail/FunctionScope.h"

namespace Tarvo::Impl {

inline Platform::DebugHandler* traceHandler(Platform::DebugHandler& handler) { return &handler; }
inline Platform::DebugHandler* traceHandler(Platform::DebugHandler* handler) { return handler; }
inline Platform::DebugHandler* traceHandler(const Debuggable& debuggable) {
  return debuggable.debugHandler().get();
}
template <typename Handler>
Platform::DebugHandler* traceHandler(const std::shared_ptr<Handler>& handler) {
  return handler.get();
}

// Refuses a name in place of a handle: it would make a new channel at every execution.
Platform::DebugHandler* traceHandler(const char* name) = delete;
Platform::DebugHandler* traceHandler(const String& name) = delete;

template <typename... Args>
[[gnu::cold]] void traceFormatted(const Platform::DebugHandler* handler, unsigned level,
                                  const char* file, int line, const ScopeNames& scope,
                                  fmt::format_string<Displayed<Args>...> format,
                                  const Args&... args) {
  Fmt::Impl::vfmtrace(handler, level, file, scope.withFunc(), scope.func, scope.className, line,
                      fmt::string_view(format), fmt::make_format_args(displayed(args)...));
}

/// Opens a message in stream form with the names of the scope.
TARVO_EXPORT void beginMessage(Platform::DebugStream& stream, const ScopeNames& scope);

/// Call while the exception of an argument is being handled: appends a remark to the message.
TARVO_EXPORT void endUnshownMessage(Platform::DebugStream& stream);

}  // namespace Tarvo::Impl

// Tests whether the statement is on. Binds the handle, so that a temporary lives to its end.
#define TARVO_TRACE_IF_ON(handle, level)                                \
  auto&& tarvoOwner_ = (handle);                                        \
  const auto* tarvoHandler_ = ::Tarvo::Impl::traceHandler(tarvoOwner_); \
  const unsigned tarvoLevel_ = (level);                                 \
  if (tarvoHandler_ != nullptr && tarvoHandler_->levelEnabled(tarvoLevel_)) [[unlikely]]

#define TARVO_TRACE(handle, level, ...)                                               \
  do {                                                                                \
    TARVO_TRACE_IF_ON(handle, level) {                                                \
      TARVO_SCOPE(tarvoScope_);                                                       \
      ::Tarvo::Impl::traceFormatted(tarvoHandler_, tarvoLevel_, TARVO_FILE, __LINE__, \
                                    tarvoScope_.names(), __VA_ARGS__);                \
    }                                                                                 \
  } while (false)

// Declares the message. An exception from an argument must not break the traced code.
#define TARVO_STREAM_MESSAGE(...)                                   \
  ::Tarvo::Platform::DebugStream tarvoStream_;                      \
  try {                                                             \
    ::Tarvo::Impl::beginMessage(tarvoStream_, tarvoScope_.names()); \
    tarvoStream_ << __VA_ARGS__;                                    \
  } catch (...) {                                                   \
    ::Tarvo::Impl::endUnshownMessage(tarvoStream_);                 \
  }                                                                 \
  static_assert(true)

#define TARVO_TRACE_STREAM(handle, level, ...)                             \
  do {                                                                     \
    TARVO_TRACE_IF_ON(handle, level) {                                     \
      TARVO_SCOPE(tarvoScope_);                                            \
      TARVO_STREAM_MESSAGE(__VA_ARGS__);                                   \
      tarvoHandler_->dump(tarvoStream_, tarvoLevel_, TARVO_FILE, __LINE__, \
                          tarvoScope_.names().func);                       \
    }                                                                      \
  } while (false)

#define TARVO_ASSERT_STREAM(handle, level, condition, ...)                                      \
  do {                                                                                          \
    if (!(condition)) [[unlikely]] {                                                            \
      TARVO_SCOPE(tarvoScope_);                                                                 \
      auto&& tarvoOwner_ = (handle);                                                            \
      TARVO_STREAM_MESSAGE(__VA_ARGS__);                                                        \
      ::Tarvo::debugAndThrowAssertException(::Tarvo::Impl::traceHandler(tarvoOwner_), level,    \
                                            tarvoStream_, TARVO_FILE, tarvoScope_.names().func, \
                                            __LINE__);                                          \
    }                                                                                           \
  } while (false)

#endif
