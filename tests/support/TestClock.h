#ifndef TARVO_TESTS_SUPPORT_TESTCLOCK_H
#define TARVO_TESTS_SUPPORT_TESTCLOCK_H

namespace testsupport {

/// While one lives, all clocks of its thread stand still, for the library and the event library
/// alike. They go on when the test says so, and with each turn of a loop by a microsecond and what
/// it would have waited. It begins at a whole second, and leaves the thread's clocks ahead rather
/// than let them go back.
class TestClock {
 public:
  /// With `perLook` nanoseconds each look at a clock takes so long, and the coarse clock has steps.
  explicit TestClock(long perLook = 0);
  TestClock(const TestClock&) = delete;
  TestClock& operator=(const TestClock&) = delete;
  ~TestClock();

  static void advance(double seconds);

  /// Called before the loop waits with nothing ready; negative is for ever, and the wait is not
  /// done: then it breaks the loop.
  static inline void (*beforeWait)(double seconds) = nullptr;
};

}  // namespace testsupport

#endif
