#ifndef TARVO_TESTS_SUPPORT_TESTCLOCK_H
#define TARVO_TESTS_SUPPORT_TESTCLOCK_H

namespace testsupport {

/// While one lives, all clocks of its thread stand still, for the library and the event library
/// alike. They go on when the test says so, and with each turn of a loop by a microsecond and what
/// it would have waited. It begins at a whole second, and leaves the thread's clocks ahead rather
/// than let them go back.
class TestClock {
 public:
  TestClock();
  TestClock(const TestClock&) = delete;
  TestClock& operator=(const TestClock&) = delete;
  ~TestClock();

  static void advance(double seconds);
};

}  // namespace testsupport

#endif
