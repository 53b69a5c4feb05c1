#ifndef TARVO_SRC_FOUNDATION_TERMINATE_H
#define TARVO_SRC_FOUNDATION_TERMINATE_H

namespace Tarvo::Impl {

/// Installs our terminate handler, which reports the exception that ends the process.
void installTerminateHandler();

/// Ends the process after a failed assertion. The report then describes no exception, even if one
/// is being handled at that moment.
[[noreturn]] void terminateOnAssertion();

}  // namespace Tarvo::Impl

#endif
