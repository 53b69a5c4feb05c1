/// Everything that happens when the library is loaded, in order. No other file of the library has a
/// static initialiser, except that of the standard streams, which must run first.

#include <iostream>
#include <vector>

#include <pthread.h>

#include "Tarvo/ForkHandler.h"
#include "Tarvo/TraceSink.h"
#include "foundation/AtFork.h"
#include "foundation/Terminate.h"
#include "platform/TraceHandles.h"
#include "platform/libevent/LibeventBase.h"
#include "scheduler/SchedulerTrace.h"
#include "service/SignalWatch.h"
#include "trace/Backtrace.h"
#include "trace/LocalTime.h"
#include "util/UtilTrace.h"

namespace Tarvo {

namespace {

/// A module's own channel; never destroyed, so that it may trace while the process exits.
Platform::DebugHandler* makeHandle(const char* name) {
  static auto& kept = *new std::vector<std::shared_ptr<Platform::DebugHandler>>;
  return kept.emplace_back(Platform::getDebugHandler(name)).get();
}

void beforeFork() {
  Impl::keepOffsetForChild();
  Impl::holdPosts();
  Impl::holdChanges();
  Impl::holdSignals();
}

void afterFork() {
  Impl::releaseSignals();
  Impl::releaseChanges();
  Impl::releasePosts();
}

void reviveForkedChild() {
  Impl::forgetThreadId();
  Impl::releaseChangesInChild();
  Impl::releasePosts();
  Impl::reviveLoco();
  Impl::keepOffsetInChild();
  Impl::markBaseShared();
  Impl::forgetSignalsInChild();
}

void startUp() {
  // 1. The levels and the file of traces: first the defaults, then the environment.
  Platform::setupTarvoDebug("Tarvo*/01");
  Platform::setupTarvoDebug(nullptr);
  // 2. The fields of a trace line, or the sink that gets the records instead.
  Platform::setTraceFormat("date,time,tid,handle,level");
  Platform::setTraceFormat(nullptr);
  Platform::setTraceSink(nullptr);
  // 3. The terminate handler, and the unwinder, which cannot be loaded later in a forked child.
  Impl::loadUnwinder();
  Impl::installTerminateHandler();
  // 4. The hooks of fork(): AtFork.h says why. setupHandler() comes last, so that isForkedChild()
  //    is true only when the child is repaired.
  const int error = pthread_atfork(beforeFork, afterFork, reviveForkedChild);
  TARVO_CHECK(error == 0);
  Platform::setupHandler();
  // 5. The modules' handles.
  Impl::libeventTrace = makeHandle("TarvoLibevent");
  Impl::pluginTrace = makeHandle("TarvoPlugin");
  Impl::taskSchedulerTrace = makeHandle("TaskScheduler");
  Impl::taskSchedulerTrace->enabledIs(0, true);  // the line that names the task that threw
  Impl::timerWheelTrace = makeHandle("TarvoTimerWheel");
  Impl::utilTrace = makeHandle("TarvoUtil");
}

[[maybe_unused]] const bool started = (startUp(), true);

}  // namespace

Platform::DebugHandler* Impl::libeventTrace = nullptr;
Platform::DebugHandler* Impl::pluginTrace = nullptr;
Platform::DebugHandler* Impl::taskSchedulerTrace = nullptr;
Platform::DebugHandler* Impl::timerWheelTrace = nullptr;
Platform::DebugHandler* Impl::utilTrace = nullptr;

}  // namespace Tarvo
