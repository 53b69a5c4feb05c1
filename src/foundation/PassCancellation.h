#ifndef TARVO_SRC_FOUNDATION_PASSCANCELLATION_H
#define TARVO_SRC_FOUNDATION_PASSCANCELLATION_H

#include <exception>

namespace Tarvo::Impl {

/// To be called first by whoever catches everything: what ends a cancelled thread must be thrown
/// again, or the process ends. It is no exception of the language and so has no pointer; the class
/// that the compiler offers for it is caught by a reference to nothing, which sanitizers mind.
inline void passCancellation() {
  if (std::current_exception() == nullptr) throw;
}

}  // namespace Tarvo::Impl

#endif
