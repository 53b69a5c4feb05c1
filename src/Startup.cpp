/// Everything that happens when the library is loaded, in its order. No other file of the library
/// has an initialiser that runs by itself, but for the standard streams, which must come first.

#include <iostream>
#include <vector>

#include "foundation/Terminate.h"
#include "foundation/Thread.h"
#include "platform/LibeventTrace.h"

namespace Tarvo {

namespace {

/// A module's own channel; never destroyed, so that it may trace while the process exits.
Platform::DebugHandler* makeHandle(const char* name) {
  static auto& kept = *new std::vector<std::shared_ptr<Platform::DebugHandler>>;
  return kept.emplace_back(Platform::getDebugHandler(name)).get();
}

void startUp() {
  // 1. Which handles trace at which level, and where to: the defaults, then the environment.
  Platform::setupTarvoDebug("Tarvo*/01");
  Platform::setupTarvoDebug(nullptr);
  // 2. What stands before a message.
  Platform::setTraceFormat("date,time,tid,handle,level");
  Platform::setTraceFormat(nullptr);
  // 3. The report about what killed the process.
  Impl::installTerminateHandler();
  // 4. What a forked child must forget.
  Impl::registerThreadForkHandler();
  // 5. The modules' handles.
  Impl::libeventTrace = makeHandle("TarvoLibevent");
}

[[maybe_unused]] const bool started = (startUp(), true);

}  // namespace

Platform::DebugHandler* Impl::libeventTrace = nullptr;

}  // namespace Tarvo
