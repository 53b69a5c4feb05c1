#ifndef TARVO_SRC_TRACE_TRACEFILE_H
#define TARVO_SRC_TRACE_TRACEFILE_H

#include <cstddef>

#include "Tarvo/String.h"

namespace Tarvo::Impl {

/// The file that trace lines go to, when one is open. REQUIRES for every operation: the global
/// lock.
class TraceFile {
 public:
  /// Opens for writing, and empties the file unless another process traces to it. False, with
  /// nothing open, when that fails.
  bool open(const char* name);
  /// Opens what stands under the name now, without emptying it, in the place of what is open. False
  /// and errno, and the same file as before, when that fails.
  bool reopen();
  void close();

  bool isOpen() const { return fd_ >= 0; }
  /// Empty when no file is open.
  const String& name() const { return name_; }

  /// Writes all of the text; a failure is not reported.
  void write(const char* text, std::size_t size);

 private:
  void share();
  void emptyUnlessShared();

  String name_;
  int fd_ = -1;
};

/// The process's trace file; never destroyed, so that static objects may trace while it exits.
TraceFile& traceFile();

}  // namespace Tarvo::Impl

#endif
