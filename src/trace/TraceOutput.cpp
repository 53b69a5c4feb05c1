#include <fmt/compile.h>
#include <fmt/format.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <iostream>
#include <string_view>

#include "Tarvo/Debug.h"
#include "Tarvo/Loco.h"
#include "Tarvo/Thread.h"
#include "trace/TraceFile.h"
#include "trace/TraceFormat.h"

namespace Tarvo::Platform {

namespace {

using Impl::TraceField;
using Impl::TraceFields;

/// The local date and time of one second as text. Breaking a second down costs more than all the
/// rest of a line, so each thread remembers its last one.
class SecondText {
 public:
  /// False when the second cannot be broken down.
  bool secondIs(std::time_t second) {
    if (second == second_) return true;
    std::tm local;
    if (localtime_r(&second, &local) == nullptr) return false;
    dateSize_ = std::strftime(date_, sizeof date_, "%Y-%m-%d ", &local);
    timeSize_ = std::strftime(time_, sizeof time_, "%H:%M:%S", &local);
    second_ = second;
    return true;
  }
  std::string_view date() const { return {date_, dateSize_}; }
  std::string_view time() const { return {time_, timeSize_}; }

 private:
  std::time_t second_ = -1;
  char date_[40];
  char time_[16];
  std::size_t dateSize_ = 0;
  std::size_t timeSize_ = 0;
};

thread_local SecondText secondText;

void appendTime(fmt::memory_buffer& line, TraceFields fields) {
  if (!fields.has(TraceField::date) && !fields.has(TraceField::time)) return;
  timeval now;
  gettimeofday(&now, nullptr);
  if (!secondText.secondIs(now.tv_sec)) return;
  if (fields.has(TraceField::date)) line.append(secondText.date());
  if (fields.has(TraceField::time)) {
    line.append(secondText.time());
    // The fraction is a plain number, without leading zeros.
    fmt::format_to(fmt::appender(line), FMT_COMPILE(".{} "), now.tv_usec);
  }
}

std::string_view lastComponent(std::string_view path) { return path.substr(path.rfind('/') + 1); }

void appendPrefix(fmt::memory_buffer& line, const DebugHandler* handler, unsigned level,
                  const char* file, const char* func, int lineNumber) {
  const TraceFields fields = Impl::traceFields();
  const auto out = fmt::appender(line);
  appendTime(line, fields);
  if (fields.has(TraceField::pid)) fmt::format_to(out, FMT_COMPILE("{} "), getpid());
  if (fields.has(TraceField::tid)) fmt::format_to(out, FMT_COMPILE("{} "), Tarvo::gettid());
  if (fields.has(TraceField::handle) && handler != nullptr) {
    fmt::format_to(out, FMT_COMPILE("{} "), handler->name());
  }
  if (fields.has(TraceField::level)) fmt::format_to(out, FMT_COMPILE("{} "), level);
  // A missing name ends the prefix.
  if (fields.has(TraceField::lineInfo)) {
    if (file == nullptr) return;
    fmt::format_to(out, FMT_COMPILE("{}:{} "), lastComponent(file), lineNumber);
  }
  if (fields.has(TraceField::funcName) && func != nullptr) {
    fmt::format_to(out, FMT_COMPILE("{} "), std::string_view(func));
  }
}

}  // namespace

void dumpDebugMsg(const char* msg, unsigned len, unsigned level, const void* handler,
                  const char* file, const char* func, int line) {
  const int savedErrno = errno;  // a trace statement must not disturb what it reports on
  fmt::memory_buffer text;
  appendPrefix(text, static_cast<const DebugHandler*>(handler), level, file, func, line);
  text.append(msg, msg + len);
  text.push_back('\n');

  LocoGuard guard;
  Impl::TraceFile& destination = Impl::traceFile();
  if (destination.isOpen()) {
    destination.write(text.data(), text.size());
  } else {
    // Past the stream's state: one failed write must not silence every later line.
    std::cerr.rdbuf()->sputn(text.data(), static_cast<std::streamsize>(text.size()));
    std::cerr.rdbuf()->pubsync();
  }
  errno = savedErrno;
}

}  // namespace Tarvo::Platform
