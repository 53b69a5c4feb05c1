#include "Tarvo/Fmt.h"

#include <cxxabi.h>

#include "Tarvo/Assert.h"

namespace Tarvo {

namespace Platform {

// A program may carry the formatting part alone; then nobody defines the writer.
[[gnu::weak]] void dumpDebugMsg(const char* msg, unsigned len, unsigned level, const void* handler,
                                const char* file, const char* func, int line);

}  // namespace Platform

namespace Fmt::Impl {

namespace {
constexpr std::size_t leastCapacity = 128;

void empty(fmt::memory_buffer& buffer) {
  buffer.clear();
  buffer.reserve(leastCapacity);
}
}  // namespace

void vfmtrace(const void* handler, unsigned level, const char* file, bool withFunc,
              const char* func, const char* className, int line, fmt::string_view format,
              fmt::format_args args) {
  fmt::memory_buffer buffer;
  try {
    buildMessageBuffer(buffer, withFunc, func, className, format, args);
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    // A message that cannot be made must not break the code that it reports on.
    buffer.append(fmt::string_view(" (an argument cannot be shown)"));
  }
  dumpDebugMsg(buffer.data(), buffer.size(), level, handler, file, func, line);
}

void dumpDebugMsg(const char* msg, std::size_t len, std::uint32_t level, const void* handler,
                  const char* file, const char* func, int line) {
  if (Platform::dumpDebugMsg == nullptr) {
    TARVO_CHECK(false && "No debug handler found for platform");
  }
  Platform::dumpDebugMsg(msg, static_cast<unsigned>(len), level, handler, file, func, line);
}

void buildMessageBuffer(fmt::memory_buffer& buffer, bool withFunc, const char* func,
                        const char* className, fmt::string_view format, fmt::format_args args) {
  empty(buffer);
  buildMessageBufferInternal(buffer, withFunc, func, className, format, args);
}

void buildMessageBufferInternal(fmt::memory_buffer& buffer, bool withFunc, const char* funcName,
                                const char* className, fmt::string_view format,
                                fmt::format_args args) {
  if (withFunc) {
    TARVO_CHECK(funcName && className);
    fmt::format_to(fmt::appender(buffer), "{}::{}() ", className, funcName);
  }
  fmt::vformat_to(fmt::appender(buffer), format, args);
}

void buildDetailedMessageBuffer(fmt::memory_buffer& buffer, const char* file, int line,
                                bool withFunc, const char* func, const char* className,
                                fmt::string_view format, fmt::format_args args) {
  empty(buffer);
  fmt::format_to(fmt::appender(buffer), "{}:{}: ", file != nullptr ? file : "", line);
  buildMessageBufferInternal(buffer, withFunc, func, className, format, args);
}

String vformatstr(bool withFunc, const char* func, const char* className, fmt::string_view format,
                  fmt::format_args args) {
  fmt::memory_buffer buffer;
  buildMessageBuffer(buffer, withFunc, func, className, format, args);
  return fmt::to_string(buffer);
}

String vformatstr(const char* file, int line, bool withFunc, const char* func,
                  const char* className, fmt::string_view format, fmt::format_args args) {
  fmt::memory_buffer buffer;
  buildDetailedMessageBuffer(buffer, file, line, withFunc, func, className, format, args);
  return fmt::to_string(buffer);
}

}  // namespace Fmt::Impl

namespace Fmtrace::Impl {

fmt::format_context::iterator vformat_to(fmt::format_context& context, fmt::string_view format,
                                         fmt::format_args args) {
  const auto end = fmt::vformat_to(context.out(), format, args);
  context.advance_to(end);
  return end;
}

}  // namespace Fmtrace::Impl

}  // namespace Tarvo
