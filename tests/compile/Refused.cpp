/// Compiles as it is, and with one of the words below defined is refused with a plain reason.

#include "Tarvo/DebugControl.h"
#include "Tarvo/Trace.h"
#include "Tarvo/Util.h"

namespace {

constexpr int positive(int value) {
  TARVO_ASSERT(value > 0, "{} is not positive", value);
  TARVO_CHECK(value < 10 && "a small one");
  if (value == 9) TARVO_ABORT("nine");
  return value;
}
static_assert(positive(3) == 3);

}  // namespace

void statements(Tarvo::Platform::DebugHandler& handle);
void statements(Tarvo::Platform::DebugHandler& handle) {
  const auto seven = [](auto, auto) { return 7; };
  TARVO_CHECK(seven.operator()<int, int>(1, 2) == 7);  // commas that are none of ours
  TARVO_TRACE(handle, 1, "{}", Tarvo::Util::hash("brought along"));
#if defined(CHECK_WITH_TEXT)
  TARVO_CHECK(positive(1) > 0, "a text");
#elif defined(RECORD_ON_STACK)
  Tarvo::Orl::DebugControl record("name", 1, false);
#elif defined(TRACE_ON_NAME)
  TARVO_TRACE("name", 1, "a text");
#elif defined(MISSING_ARGUMENT)
  TARVO_TRACE(handle, 1, "{} {}", 1);
#endif
}
