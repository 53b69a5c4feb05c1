#include "Tarvo/Fmt.h"

#include <fmt/compile.h>

#include <algorithm>
#include <concepts>
#include <limits>
#include <type_traits>

#include "Tarvo/Assert.h"
#include "foundation/PassCancellation.h"
#include "trace/UnshownArgument.h"

namespace Tarvo {

namespace Platform {

// Weak: a program may contain the formatting functions without the trace writer.
[[gnu::weak]] void dumpDebugMsg(const char* msg, unsigned len, unsigned level, const void* handler,
                                const char* file, const char* func, int line);

}  // namespace Platform

namespace Fmt::Impl {

namespace {

constexpr std::size_t leastCapacity = 128;

void clearAndReserve(fmt::memory_buffer& buffer) {
  buffer.clear();
  buffer.reserve(leastCapacity);
}

/// Appends to a buffer through plain pointers, which is faster than the buffer's own functions. The
/// buffer's size is wrong until the destructor sets it.
class Appender {
 public:
  explicit Appender(fmt::memory_buffer& buffer)
      : buffer_(buffer),
        end_(buffer.data() + buffer.size()),
        limit_(buffer.data() + buffer.capacity()) {}
  Appender(const Appender&) = delete;
  Appender& operator=(const Appender&) = delete;
  ~Appender() { buffer_.resize(size()); }

  void put(fmt::string_view text) {
    makeRoom(text.size());
    end_ = std::copy_n(text.data(), text.size(), end_);  // an empty view's data() may be null
  }
  template <std::integral Number>
  void put(Number number) {
    makeRoom(std::numeric_limits<Number>::digits10 + 2);
    end_ = fmt::format_to(end_, FMT_COMPILE("{}"), number);
  }
  /// Appends the text up to its next brace, or to its end, and returns that place.
  const char* putUpToBrace(const char* text, const char* textEnd) {
    makeRoom(static_cast<std::size_t>(textEnd - text));
    char* end = end_;
    for (; text != textEnd && *text != '{' && *text != '}'; ++text) *end++ = *text;
    end_ = end;
    return text;
  }

 private:
  std::size_t size() const { return static_cast<std::size_t>(end_ - buffer_.data()); }

  void makeRoom(std::size_t more) {
    if (more > static_cast<std::size_t>(limit_ - end_)) [[unlikely]]
      grow(more);
  }
  [[gnu::noinline, gnu::cold]] void grow(std::size_t more) {
    const std::size_t before = size();
    buffer_.resize(before);  // reserve() keeps size() bytes
    buffer_.reserve(before + more);
    end_ = buffer_.data() + before;
    limit_ = buffer_.data() + buffer_.capacity();
  }

  fmt::memory_buffer& buffer_;
  char* end_;
  char* limit_;
};

/// Appends a text or an integer as "{}" formats it; returns false for other types.
struct PlainPutter {
  template <typename T>
  bool operator()(T value) const {
    constexpr bool plain = std::is_same_v<T, fmt::string_view> || std::is_same_v<T, int> ||
                           std::is_same_v<T, unsigned> || std::is_same_v<T, long long> ||
                           std::is_same_v<T, unsigned long long>;
    if constexpr (plain) message.put(value);
    return plain;
  }
  Appender& message;
};

/// Formats a message whose arguments are all texts and integers, with plain "{}", as most messages
/// are. Takes a fraction of the formatting library's time. Returns false for any other message;
/// part of it may then have been appended.
bool putPlain(Appender& message, fmt::string_view format, fmt::format_args args) {
  const char* at = format.begin();
  for (int next = 0;; ++next) {
    at = message.putUpToBrace(at, format.end());
    if (at == format.end()) return true;
    const bool plain = at[0] == '{' && at + 1 != format.end() && at[1] == '}';
    if (!plain || !fmt::visit_format_arg(PlainPutter{message}, args.get(next))) return false;
    at += 2;
  }
}

/// The same, but leaves the buffer unchanged when it returns false.
bool appendPlain(fmt::memory_buffer& buffer, fmt::string_view format, fmt::format_args args) {
  const std::size_t before = buffer.size();
  if (Appender message(buffer); putPlain(message, format, args)) return true;
  buffer.resize(before);
  return false;
}

}  // namespace

void vfmtrace(const void* handler, unsigned level, const char* file, bool withFunc,
              const char* func, const char* className, int line, fmt::string_view format,
              fmt::format_args args) {
  fmt::memory_buffer buffer;
  try {
    buildMessageBuffer(buffer, withFunc, func, className, format, args);
  } catch (...) {
    Tarvo::Impl::passCancellation();
    // An exception from formatting must not reach the traced code.
    buffer.append(unshownArgument);
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
  clearAndReserve(buffer);
  buildMessageBufferInternal(buffer, withFunc, func, className, format, args);
}

void buildMessageBufferInternal(fmt::memory_buffer& buffer, bool withFunc, const char* funcName,
                                const char* className, fmt::string_view format,
                                fmt::format_args args) {
  if (withFunc) {
    TARVO_CHECK(funcName && className);
    Appender scope(buffer);
    scope.put(className);
    scope.put(fmt::string_view("::", 2));
    scope.put(funcName);
    scope.put(fmt::string_view("() ", 3));
  }
  if (!appendPlain(buffer, format, args)) fmt::vformat_to(fmt::appender(buffer), format, args);
}

void buildDetailedMessageBuffer(fmt::memory_buffer& buffer, const char* file, int line,
                                bool withFunc, const char* func, const char* className,
                                fmt::string_view format, fmt::format_args args) {
  clearAndReserve(buffer);
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
