#ifndef TARVO_TRACESINK_H
#define TARVO_TRACESINK_H

/// Where trace records go instead of becoming lines.
///
/// 1. A statement whose level is on makes its message. Without a sink that becomes a line of the
///    trace file or of standard error, as Tarvo/Debug.h has it.
/// 2. With a sink, the sink gets the record with all its fields, whatever TRACEFORMAT chooses. It
///    is called on the thread that traces, by any number of threads at once, under no lock of the
///    library, with the thread's cancellation put off.
/// 3. A sink that returns false or throws has not taken the record, which then becomes a line.
///    What it threw is swallowed and counted.
/// 4. A sink must not trace: what its thread traces meanwhile is dropped, also from what the sink
///    calls and from a signal handler.
///
///     struct Remembers : Tarvo::Platform::TraceSink {
///       bool traceRecord(const Tarvo::Platform::TraceRecord& record) override {
///         if (record.level != 0) return false;  // an ordinary line
///         const std::lock_guard guard(mutex);
///         errors.emplace_back(record.message);
///         return true;
///       }
///       std::mutex mutex;
///       std::vector<std::string> errors;
///     };
///     Tarvo::Platform::traceSinkIs(std::make_shared<Remembers>());
///
/// Two sinks are provided: TRACESINK=json writes one JSON object a line, TRACESINK=syslog hands the
/// records to syslog(3).
///
/// The library shares the sink. One that is replaced may still be called by threads that are in the
/// middle of a record, and goes with the last of them. The one in force when the process exits is
/// never destroyed, since static objects may trace: set none before, if it keeps something back.
/// A forked child has its parent's sink, and whatever that keeps: a lock of the sink's own that
/// another thread held at the fork stays locked there.

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string_view>

#include "Tarvo/Export.h"

namespace Tarvo::Platform {

/// What one statement says. The texts are those of the statement, of any bytes, and end with the
/// call; the names are empty where the statement has none.
struct TraceRecord {
  std::chrono::system_clock::time_point time;
  unsigned level;
  std::string_view channel;
  pid_t thread;           // as Tarvo::gettid()
  std::string_view file;  // with its path, as the compiler was given it
  int line;
  std::string_view function;
  std::string_view message;
};

class TARVO_EXPORT TraceSink {
 public:
  virtual ~TraceSink();
  /// Takes the record; false leaves it to be written as a line. Must not wait for a thread that
  /// may be tracing.
  virtual bool traceRecord(const TraceRecord& record) = 0;
};

/// Replaces the sink of the process; null for lines. Any thread may do so, while others trace.
TARVO_EXPORT void traceSinkIs(std::shared_ptr<TraceSink> sink);
/// The one in force, or null.
TARVO_EXPORT std::shared_ptr<TraceSink> traceSink();
/// How often a sink has thrown since the process, or the parent that it was forked from, started.
TARVO_EXPORT unsigned long long traceSinkThrewCount();

/// Chooses a sink by its name, "json" or "syslog"; an empty name stands for lines. Null takes
/// TRACESINK, when that is set, as happens when the library is loaded; it counts as unset in a
/// program with more rights than its caller. An unknown name is reported on standard error and
/// changes nothing.
TARVO_EXPORT void setTraceSink(const char* name);

/// Writes each record to the trace file, or else to standard error, as one line of JSON:
///
///     {"time":"2026-05-01T12:00:01.250000Z","level":3,"channel":"Cache","process":4711,
///      "thread":4712,"file":"src/Cache.cpp","line":80,"function":"drop",
///      "message":"Cache::drop() dropping 17"}
///
/// The time is UTC, in microseconds. Line ends in a message are escaped, and a byte that is no
/// UTF-8 becomes U+FFFD. When memory is short the record becomes an ordinary line.
TARVO_EXPORT std::shared_ptr<TraceSink> jsonTraceSink();

/// Hands each record to syslog(3), as "thread channel level message": level 0 as LOG_ERR, 1 as
/// LOG_NOTICE, 2 to 4 as LOG_INFO and higher ones as LOG_DEBUG. Name, options and facility are
/// those of the program's openlog(). A zero byte in a message becomes a blank. A child that was
/// forked among threads writes lines instead, since the C library's lock may be held there for
/// ever.
TARVO_EXPORT std::shared_ptr<TraceSink> syslogTraceSink();

}  // namespace Tarvo::Platform

#endif
