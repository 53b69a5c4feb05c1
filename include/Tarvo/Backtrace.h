#ifndef TARVO_BACKTRACE_H
#define TARVO_BACKTRACE_H

#include <array>

#include "Tarvo/Export.h"
#include "Tarvo/String.h"

namespace Tarvo {

/// The call stack of one moment: up to 100 return addresses, innermost first.
///
/// Capturing walks the stack once. After the first time in a thread it allocates nothing. The text
/// is made by pretty() alone. A backtrace is a plain value and may be copied.
///
/// Capturing takes some thirty times as long in two cases, because the unwinder's cache cannot be
/// used there: in a thread that captured before some module was unloaded with dlclose(), and in a
/// child that was forked while other threads existed.
class TARVO_EXPORT Backtrace {
 public:
  static constexpr unsigned maxFrames = 100;

  /// Captures the stack of the caller when `capture`, otherwise stays empty.
  explicit Backtrace(bool capture);

  /// Replaces the contents by the stack of the caller. Entry 0 is the return address of this call.
  void unwind();

  /// One line per frame as the dynamic loader knows it, "object(symbol+0xoffset)[address]", under
  /// the heading "Backtrace:". Without frames the text says so before the heading.
  String pretty() const;

  unsigned size() const { return size_; }
  /// The return address number `i`; REQUIRES: i < size().
  void* address(unsigned i) const { return addresses_[i]; }

  /// 0 when TARVO_BACKTRACE_VERBOSITY is exactly "0", otherwise 1. At 0 the terminate handler
  /// captures no backtrace of its own.
  static int verbosity();

 private:
  std::array<void*, maxFrames> addresses_;  // only the first size_ are set
  unsigned size_ = 0;
};

}  // namespace Tarvo

#endif
