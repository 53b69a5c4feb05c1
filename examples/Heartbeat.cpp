/// The smallest service: a timer that traces. Run it with TRACE=Heartbeat/1.

#include <Tarvo/Platform.h>
#include <Tarvo/Trace.h>

struct Heartbeat : Tarvo::Platform::TimeoutHandler, Tarvo::Debuggable {
  Heartbeat() : Debuggable("Heartbeat") { timer->setTimeout(0.1); }
  void timeout() override {
    ++beats;
    TARVO_TRACE(*this, 1, "beat {}", beats);
    if (beats < 3) timer->setTimeout(0.1);
  }
  int beats = 0;
  std::shared_ptr<Tarvo::Platform::TimerControl> timer = Tarvo::Platform::getTimerControl(this);
};

int main() {
  Heartbeat heartbeat;
  Tarvo::Platform::doEventLoop();  // returns when nothing is left to wait for
}
