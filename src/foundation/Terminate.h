#ifndef TARVO_SRC_FOUNDATION_TERMINATE_H
#define TARVO_SRC_FOUNDATION_TERMINATE_H

namespace Tarvo::Impl {

/// Makes the handler that reports what killed the process the one that std::terminate() calls.
void installTerminateHandler();

/// Ends the process after a failed assertion: the report then speaks of no exception, even when
/// another one is being handled at that moment.
[[noreturn]] void terminateOnAssertion();

}  // namespace Tarvo::Impl

#endif
