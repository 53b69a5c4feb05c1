#include <event2/event.h>

#include "platform/LibeventTrace.h"

#include "Tarvo/LibeventFactory.h"

namespace Tarvo {

namespace {

unsigned traceLevel(int severity, const char* msg) {
  switch (severity) {
    case EVENT_LOG_DEBUG:
      return 9;
    case EVENT_LOG_MSG:
      return 5;
    case EVENT_LOG_WARN:
      return 1;
    case EVENT_LOG_ERR:
      return 0;
    default:
      TARVO_FAIL("invalid libevent severity:{} msg:{}", severity, msg);
  }
}

}  // namespace

void le_fatal_cb(int err) { TARVO_FAIL("libevent fatal error:{}", err); }

void le_debug_cb(int severity, const char* msg) {
  TARVO_TRACE(Impl::libeventTrace, traceLevel(severity, msg), "libevent: {}", msg);
}

}  // namespace Tarvo
