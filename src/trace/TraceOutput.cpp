#include <fmt/compile.h>
#include <fmt/format.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <concepts>
#include <new>
#include <string_view>

#include "Tarvo/Debug.h"
#include "Tarvo/Loco.h"
#include "Tarvo/Thread.h"
#include "foundation/StandardError.h"
#include "trace/LocalTime.h"
#include "trace/TraceFile.h"
#include "trace/TraceFormat.h"
#include "trace/TraceOutput.h"

namespace Tarvo {

void Impl::writeTrace(std::string_view text) {
  TraceFile& destination = traceFile();
  if (destination.isOpen()) {
    destination.write(text.data(), text.size());
  } else {
    writeStandardError(text);
  }
}

namespace Platform {

namespace {

using Impl::TraceField;
using Impl::TraceFields;

thread_local Impl::LocalTime localTime;

/// A line that is being composed. Its storage has the full size from the start, so that appending
/// needs no checks; only a long line allocates.
class Line {
 public:
  /// `textSize` bytes of text, besides the numbers, the date and the time.
  explicit Line(std::size_t textSize) {
    constexpr std::size_t theRest = 256;
    buffer_.resize(textSize + theRest);
    end_ = buffer_.data();
  }

  void put(char c) { *end_++ = c; }
  void put(std::integral auto number) { end_ = fmt::format_to(end_, FMT_COMPILE("{}"), number); }
  void put(std::string_view text) { end_ = std::copy_n(text.data(), text.size(), end_); }
  void putDate(const Impl::LocalTime& time) { end_ = time.putDate(end_); }
  void putTime(const Impl::LocalTime& time) { end_ = time.putTime(end_); }
  /// Every field is followed by one blank.
  void field(auto value) {
    put(value);
    put(' ');
  }

  std::string_view text() const {
    return {buffer_.data(), static_cast<std::size_t>(end_ - buffer_.data())};
  }

 private:
  fmt::basic_memory_buffer<char, 1024> buffer_;
  char* end_;
};

/// The texts of the fields that are on. A missing text has null data(), unlike an empty one.
struct FieldTexts {
  std::string_view handle;
  std::string_view file;
  std::string_view func;
  std::size_t size() const { return handle.size() + file.size() + func.size(); }
};

FieldTexts fieldTexts(TraceFields fields, const DebugHandler* handler, const char* file,
                      const char* func) {
  FieldTexts texts;
  if (fields.has(TraceField::handle) && handler != nullptr) texts.handle = handler->name();
  if (fields.has(TraceField::lineInfo) && file != nullptr) {
    texts.file = file;
    texts.file.remove_prefix(texts.file.rfind('/') + 1);  // the last component of the path
  }
  if (fields.has(TraceField::funcName) && func != nullptr) texts.func = func;
  return texts;
}

void putTime(Line& line, TraceFields fields) {
  if (!fields.has(TraceField::date) && !fields.has(TraceField::time)) return;
  timeval now;
  gettimeofday(&now, nullptr);
  if (!localTime.secondIs(now.tv_sec)) return;
  if (fields.has(TraceField::date)) line.putDate(localTime);
  if (fields.has(TraceField::time)) {
    line.putTime(localTime);
    line.put('.');
    line.field(static_cast<unsigned>(now.tv_usec));  // a plain number, without leading zeros
  }
}

void putPrefix(Line& line, TraceFields fields, const FieldTexts& texts, unsigned level,
               int lineNumber) {
  putTime(line, fields);
  if (fields.has(TraceField::pid)) line.field(getpid());
  if (fields.has(TraceField::tid)) line.field(Tarvo::gettid());
  if (texts.handle.data() != nullptr) line.field(texts.handle);
  if (fields.has(TraceField::level)) line.field(level);
  // When the file or the function is missing, the rest of the prefix is left out.
  if (fields.has(TraceField::lineInfo)) {
    if (texts.file.data() == nullptr) return;
    line.put(texts.file);
    line.put(':');
    line.field(lineNumber);
  }
  if (texts.func.data() != nullptr) line.field(texts.func);
}

[[gnu::cold]] bool giveToSink(std::string_view message, unsigned level, const DebugHandler* handler,
                              const char* file, const char* func, int lineNumber) {
  const auto text = [](const char* name) { return std::string_view(name != nullptr ? name : ""); };
  return Impl::giveToTraceSink(
      {.time = std::chrono::system_clock::now(),
       .level = level,
       .channel = text(handler != nullptr ? handler->name().c_str() : nullptr),
       .thread = Tarvo::gettid(),
       .file = text(file),
       .line = lineNumber,
       .function = text(func),
       .message = message});
}

void writeLine(std::string_view message, unsigned level, const DebugHandler* handler,
               const char* file, const char* func, int lineNumber) {
  const TraceFields fields = Impl::traceFields();
  const FieldTexts texts = fieldTexts(fields, handler, file, func);
  try {
    Line line(texts.size() + message.size());
    putPrefix(line, fields, texts, level, lineNumber);
    line.put(message);
    line.put('\n');
    const LocoGuard guard;
    Impl::writeTrace(line.text());
  } catch (const std::bad_alloc&) {  // must not break the code that the line is about
    const LocoGuard guard;
    Impl::writeTrace(message);
    Impl::writeTrace("\n");
  }
}

}  // namespace

void dumpDebugMsg(const char* msg, unsigned len, unsigned level, const void* handler,
                  const char* file, const char* func, int lineNumber) {
  const int savedErrno = errno;  // a trace statement must not disturb what it reports on
  const std::string_view message(msg, len);
  const auto* channel = static_cast<const DebugHandler*>(handler);
  if (!Impl::hasTraceSink() || !giveToSink(message, level, channel, file, func, lineNumber)) {
    writeLine(message, level, channel, file, func, lineNumber);
  }
  errno = savedErrno;
}

}  // namespace Platform

}  // namespace Tarvo
