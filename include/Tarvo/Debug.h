#ifndef TARVO_DEBUG_H
#define TARVO_DEBUG_H

/// Named trace channels and their configuration. (The statements that write to a channel stand in
/// Tarvo/Trace.h.)
///
/// A component holds a handle named after it:
///
///     auto trace = Tarvo::Platform::getDebugHandler("KvService");
///     TARVO_TRACE(trace, 1, "listening on port {}", port);
///
/// There are ten levels, 0 to 9. A statement writes a line only while the bit of its level is on in
/// its handle. The bits are configured from the environment or from code:
///
///     TRACE=KvService/0123,Tarvo*/9     names or prefixes, "/", the levels ("*" for all)
///     TRACEFILE=/tmp/trace                a file instead of standard error; truncated first,
///                                         unless another process traces to it
///     TRACEFORMAT=time,handle,func-name   the fields before the message
///     TRACESINK=json                      another form than lines: see Tarvo/TraceSink.h
///
/// Any thread may create handles, trace and configure.

#include <atomic>
#include <cstdint>
#include <memory>
#include <sstream>

#include "Tarvo/Export.h"
#include "Tarvo/String.h"

namespace Tarvo {

namespace Platform {

/// Collects the text of one message by stream insertion.
class TARVO_EXPORT DebugStream : public std::stringstream {
 public:
  DebugStream();
  ~DebugStream() override;
};

/// A named trace channel. Shared-owned when it comes from getDebugHandler().
class TARVO_EXPORT DebugHandler : public std::enable_shared_from_this<DebugHandler> {
 public:
  DebugHandler(const DebugHandler&) = delete;
  DebugHandler& operator=(const DebugHandler&) = delete;
  virtual ~DebugHandler();

  /// Switches `level` (modulo 32) on or off. Fails an assertion for a handler whose enable word is
  /// not its own.
  virtual void enabledIs(unsigned level, bool enable) = 0;

  /// Writes the text of the stream as one trace line, also when the level is off.
  virtual void dump(DebugStream& stream, unsigned level, const char* file, int line,
                    const char* func) const = 0;

  /// Whether bit `level` is on: one load and one test. Levels count modulo 32.
  bool levelEnabled(unsigned level) const { return ((levels() >> (level % 32)) & 1U) != 0; }

  /// The enable word. Read without a lock, so a change by another thread may be seen late.
  std::uint32_t levels() const {
    return std::atomic_ref<std::uint32_t>(*levelsPtr_).load(std::memory_order_relaxed);
  }

  const String& name() const { return name_; }

 protected:
  /// Uses the handler's own enable word, or `*levelsPtr` when that is not null; that word stays the
  /// caller's and must outlive the handler.
  DebugHandler(const String& name, std::uint32_t levels, std::uint32_t* levelsPtr = nullptr);

  bool ownsLevels() const { return levelsPtr_ == &levels_; }
  /// Sets the bits of `on` and clears those of `off` in the word that statements test.
  void changeLevels(std::uint32_t on, std::uint32_t off);

 private:
  std::uint32_t levels_;
  std::uint32_t* levelsPtr_;
  String name_;
};

/// A new handler for `name`, with the levels that are configured for it. Handlers of one name are
/// separate objects with the same configuration.
TARVO_EXPORT std::shared_ptr<DebugHandler> getDebugHandler(const String& name);

/// Deletes a handler that is not owned by a shared pointer; null is allowed.
TARVO_EXPORT void destroyDebugHandler(DebugHandler* handler);

/// Opens the file that TRACEFILE names, unless it is open already, and switches on the levels of
/// `spec`, or of TRACE when `spec` is null. Never switches a level off. A set-user-id program
/// ignores the variables.
TARVO_EXPORT void setupTarvoDebug(const char* spec);

/// Switches off the levels of `spec`; null does nothing.
TARVO_EXPORT void clearTarvoDebug(const char* spec);

/// For the rotation of logs, once the trace file was renamed: opens its name again, and makes the
/// file where there is none. Each line of any thread goes whole to the one or to the other. False,
/// and errno, when that fails: the lines go on to the file that is open. Without a trace file it
/// does nothing. Not for signal handlers.
TARVO_EXPORT bool reopenTraceFile();

/// Prints the configuration and all handlers to standard output.
TARVO_EXPORT void dumpTarvoDebugMap();

/// Chooses the fields before the message: names out of date, time, pid, tid, handle, level,
/// line-info and func-name, separated by commas. Null takes TRACEFORMAT, when that is set; "help"
/// prints the names. A list with an unknown name is reported on standard error and changes nothing.
TARVO_EXPORT void setTraceFormat(const char* spec);

/// Switches all fields off.
TARVO_EXPORT void clearTraceFormat();

/// Prints the eight switches to standard output, in the order of the fields.
TARVO_EXPORT void printAllTraceFormat();

/// Writes one trace line with one write: the chosen fields, `len` bytes of `msg` and a line end, to
/// the trace file or to standard error. Line ends and zero bytes in `msg` are written unchanged.
/// `handler` is the Platform::DebugHandler that emits. If a field is on and its argument is null,
/// the remaining prefix fields are left out. A failed write is not reported.
TARVO_EXPORT void dumpDebugMsg(const char* msg, unsigned len, unsigned level, const void* handler,
                               const char* file, const char* func, int line);

}  // namespace Platform

/// For classes that trace: holds a channel, or none.
class TARVO_EXPORT Debuggable {
 public:
  Debuggable() = default;
  Debuggable(std::shared_ptr<Platform::DebugHandler> handler) : handler_(std::move(handler)) {}
  /// Shares a handler that is shared already; throws std::bad_weak_ptr otherwise.
  Debuggable(Platform::DebugHandler& handler) : handler_(handler.shared_from_this()) {}
  /// Holds a new channel for `handleName`.
  Debuggable(const String& handleName) : handler_(Platform::getDebugHandler(handleName)) {}
  Debuggable(std::nullptr_t) {}
  Debuggable(const char* handleName) : Debuggable(String(handleName)) {}
  Debuggable(const Debuggable&) = default;
  Debuggable& operator=(const Debuggable&) = default;
  ~Debuggable() = default;

  const std::shared_ptr<Platform::DebugHandler>& debugHandler() const { return handler_; }

 private:
  std::shared_ptr<Platform::DebugHandler> handler_;
};

}  // namespace Tarvo

#endif
