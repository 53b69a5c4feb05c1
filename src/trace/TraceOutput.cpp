#include <fmt/compile.h>
#include <fmt/format.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "Tarvo/Debug.h"
#include "Tarvo/Loco.h"
#include "Tarvo/Thread.h"
#include "foundation/StandardError.h"
#include "trace/LocalTime.h"
#include "trace/TraceFile.h"
#include "trace/TraceFormat.h"

namespace Tarvo::Platform {

namespace {

using Impl::TraceField;
using Impl::TraceFields;

thread_local Impl::LocalTime localTime;

void appendTime(fmt::memory_buffer& line, TraceFields fields) {
  if (!fields.has(TraceField::date) && !fields.has(TraceField::time)) return;
  timeval now;
  gettimeofday(&now, nullptr);
  if (!localTime.secondIs(now.tv_sec)) return;
  if (fields.has(TraceField::date)) line.append(localTime.date());
  if (fields.has(TraceField::time)) {
    line.append(localTime.time());
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
    Impl::writeStandardError({text.data(), text.size()});
  }
  errno = savedErrno;
}

}  // namespace Tarvo::Platform
