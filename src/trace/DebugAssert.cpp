#include "Tarvo/Trace.h"
#include "foundation/PassCancellation.h"
#include "trace/UnshownArgument.h"

namespace Tarvo {

void debugAndThrowAssertException(Platform::DebugHandler* handler, unsigned level,
                                  Platform::DebugStream& stream, const char* file, const char* func,
                                  int line) {
  const String text = fmt::format("{}:{}:{}: {}", file != nullptr ? file : "",
                                  func != nullptr ? func : "", line, stream.str());
  if (handler != nullptr && handler->levelEnabled(level)) {
    Platform::DebugStream composed;
    composed << text;
    handler->dump(composed, level, file, line, func);
  }
  AssertException::throwException(text);
}

void debugAndThrowAssertException(Platform::DebugHandler& handler, unsigned level,
                                  Platform::DebugStream& stream, const char* file, const char* func,
                                  int line) {
  debugAndThrowAssertException(&handler, level, stream, file, func, line);
}

void Impl::beginMessage(Platform::DebugStream& stream, const ScopeNames& scope) {
  if (scope.withFunc()) stream << scope.className << "::" << scope.func << "() ";
}

void Impl::endUnshownMessage(Platform::DebugStream& stream) {
  passCancellation();
  stream << Fmt::Impl::unshownArgument;
}

}  // namespace Tarvo
