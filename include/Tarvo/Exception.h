#ifndef TARVO_EXCEPTION_H
#define TARVO_EXCEPTION_H

/// The family of the library's exceptions.
///
/// A run-time error that a caller may handle is thrown as one of the classes below. Each holds its
/// message and the call stack of the place where it was made:
///
///     try {
///       Tarvo::RuntimeException::throwException("cannot read " + path);
///     } catch (const Tarvo::Exception& e) {
///       log(e.msg());   // Tarvo::RuntimeException("cannot read x")
///       log(e.what());  // the same, and the backtrace, one line a frame
///     }
///
/// A programming error takes the assertion path: AssertException::throwException() throws after
/// throwOnAssertFailIs(true), which tests call. Otherwise it prints the reason and ends the process
/// with a report, as a service wants. The statements for it are in Tarvo/Assert.h.
///
/// An exception belongs to one thread at a time: what() fills its cache without a lock.

#include <exception>
#include <string_view>

#include "Tarvo/Backtrace.h"
#include "Tarvo/Export.h"
#include "Tarvo/String.h"

namespace Tarvo {

namespace Platform {
class DebugHandler;
class DebugStream;
}  // namespace Platform

/// Root of the family.
class TARVO_EXPORT Exception : public std::exception {
 public:
  Exception(const String& msg, bool captureBacktrace);
  Exception(const Exception&) = default;
  Exception& operator=(const Exception&) = default;
  ~Exception() override;

  /// msg(), a line end and the backtrace. Built at the first call; later calls return the same
  /// text. Falls back to the bare message when there is no memory for it.
  const char* what() const noexcept final;

  /// The text of what() with its length: a message may contain zero bytes.
  std::string_view text() const noexcept;

  /// The name of the class, with its namespace.
  virtual const char* name() const;

  /// name("message"), with the quotes and the parentheses.
  String msg() const;

 private:
  Backtrace backtrace_;
  String msg_;
  mutable String what_;  // empty until what() is first called
};

class TARVO_EXPORT MemoryResourceException : public Exception {
 public:
  explicit MemoryResourceException(const String& msg);
  ~MemoryResourceException() override;
  const char* name() const override;
  [[noreturn]] static void throwException(const String& msg);
};

class TARVO_EXPORT NoPermissionException : public Exception {
 public:
  explicit NoPermissionException(const String& msg);
  ~NoPermissionException() override;
  const char* name() const override;
  [[noreturn]] static void throwException(const String& msg);
};

class TARVO_EXPORT UnimplementedException : public Exception {
 public:
  explicit UnimplementedException(const String& msg);
  ~UnimplementedException() override;
  const char* name() const override;
  [[noreturn]] static void throwException(const String& msg);
};

class TARVO_EXPORT InvalidInitializeException : public Exception {
 public:
  explicit InvalidInitializeException(const String& msg);
  ~InvalidInitializeException() override;
  const char* name() const override;
  [[noreturn]] static void throwException(const String& msg);
};

class TARVO_EXPORT RuntimeException : public Exception {
 public:
  explicit RuntimeException(const String& msg);
  ~RuntimeException() override;
  const char* name() const override;
  [[noreturn]] static void throwException(const String& msg);
};

class TARVO_EXPORT OutOfRangeException : public Exception {
 public:
  explicit OutOfRangeException(const String& msg);
  ~OutOfRangeException() override;
  const char* name() const override;
  [[noreturn]] static void throwException(const String& msg);
};

class TARVO_EXPORT CorruptionDetectedException : public Exception {
 public:
  explicit CorruptionDetectedException(const String& msg);
  ~CorruptionDetectedException() override;
  const char* name() const override;
  [[noreturn]] static void throwException(const String& msg);
};

class TARVO_EXPORT InvalidSizeException : public CorruptionDetectedException {
 public:
  explicit InvalidSizeException(const String& msg);
  ~InvalidSizeException() override;
  const char* name() const override;
  [[noreturn]] static void throwException(const String& msg);
};

/// A broken invariant or a call in the wrong place, found at run time.
class TARVO_EXPORT AssertException : public Exception {
 public:
  explicit AssertException(const String& msg);
  ~AssertException() override;
  const char* name() const override;

  /// The assertion path. Throws AssertException(msg) when throwing is switched on; otherwise
  /// writes "Tarvo::Assert aborting because: " and `msg` to standard error and terminates.
  [[noreturn]] static void throwException(const String& msg);
};

/// Whether a failed assertion throws (true) or ends the process (false, the value at start). Set it
/// before threads start.
TARVO_EXPORT void throwOnAssertFailIs(bool on);

/// Failure path of an assertion that also traces. Composes "file:func:line: " and the text of
/// `stream`; emits it on `handler` when that is not null and `level` is on; then takes the
/// assertion path with the same text.
[[noreturn]] TARVO_EXPORT void debugAndThrowAssertException(Platform::DebugHandler* handler,
                                                            unsigned level,
                                                            Platform::DebugStream& stream,
                                                            const char* file, const char* func,
                                                            int line);
[[noreturn]] TARVO_EXPORT void debugAndThrowAssertException(Platform::DebugHandler& handler,
                                                            unsigned level,
                                                            Platform::DebugStream& stream,
                                                            const char* file, const char* func,
                                                            int line);

}  // namespace Tarvo

#endif
