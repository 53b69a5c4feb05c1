#ifndef TARVO_SRC_FOUNDATION_PASSCANCELLATION_H
#define TARVO_SRC_FOUNDATION_PASSCANCELLATION_H

#include <exception>

namespace Tarvo::Impl {

/// Call this first in every catch (...). Cancelling a thread unwinds it with a foreign exception,
/// which must be thrown again, or the process is aborted. std::current_exception() is null for a
/// foreign exception. (Catching abi::__forced_unwind& would be the usual way, but it binds a
/// reference to null, which the undefined-behaviour sanitizer reports.)
inline void passCancellation() {
  if (std::current_exception() == nullptr) throw;
}

}  // namespace Tarvo::Impl

#endif
