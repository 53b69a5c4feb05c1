#include <event2/event.h>

#include "platform/libevent/LibeventTrace.h"

#include "Tarvo/LibeventFactory.h"

namespace Tarvo {

void le_fatal_cb(int err) { TARVO_FAIL("libevent fatal error:{}", err); }

void le_debug_cb(int severity, const char* msg) {
  // By severity: debug, message, warning, error.
  static constexpr unsigned levels[] = {9, 5, 1, 0};
  TARVO_ASSERT(severity >= EVENT_LOG_DEBUG && severity <= EVENT_LOG_ERR,
               "invalid libevent severity:{} msg:{}", severity, msg);
  TARVO_TRACE(Impl::libeventTrace, levels[severity], "libevent: {}", msg);
}

}  // namespace Tarvo
