#include <Tarvo/CheckIncompat.h>
#include <Tarvo/Exception.h>
#include <Tarvo/Platform.h>
#include <Tarvo/Trace.h>

#include <cstdio>

namespace {

struct Once : Tarvo::Platform::TimeoutHandler {
  void timeout() override { Tarvo::RuntimeException::throwException("ran"); }
};

}  // namespace

int main() {
  Tarvo::checkIncompat();
  TARVO_TRACE(Tarvo::Platform::getDebugHandler("TarvoConsumer"), 0, "started {}", 1);
  Once once;
  const auto timer = Tarvo::Platform::getTimerControl(&once);
  timer->setTimeout(0.001);
  try {
    Tarvo::Platform::doEventLoop();
  } catch (const Tarvo::RuntimeException& e) {
    std::puts(e.msg().c_str());
    return 0;
  }
  return 1;
}
