#include <sys/time.h>

#include <ctime>
#include <fstream>

#include "Tarvo/Thread.h"
#include "Tarvo/Trace.h"
#include "support/AllocationCount.h"
#include "support/Test.h"

namespace {

using namespace testsupport;
using Tarvo::Platform::setTraceFormat;

struct TraceLineTest : TempFolder {
  TraceLineTest() { handler->enabledIs(1, true); }
  ~TraceLineTest() override { setTraceFormat("date,time,tid,handle,level"); }

  static void traceTo(const char* path) {
    path != nullptr ? setenv("TRACEFILE", path, 1) : unsetenv("TRACEFILE");
    Tarvo::Platform::setupTarvoDebug("");
  }
  String line(const char* format) {
    setTraceFormat(format);
    return captured(
        [&] { Tarvo::Platform::dumpDebugMsg("msg", 3, 1, handler.get(), "/a/F.cpp", "run", 42); });
  }

  std::shared_ptr<Tarvo::Platform::DebugHandler> handler = getDebugHandler("Line");
};

TEST_F(TraceLineTest, FieldsStandInTheirFixedOrder) {
  EXPECT_THAT(
      line("func-name,line-info,level,handle,tid,pid,time,date,date"),
      MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.(0|[1-9][0-9]*) "
                   "[0-9]+ [0-9]+ Line 1 F\\.cpp:42 run msg\n"));
  EXPECT_EQ(line("level,,handle,"), "Line 1 msg\n");
  std::jthread([&] {
    EXPECT_EQ(line("pid,tid"), fmt::format("{} {} msg\n", getpid(), Tarvo::gettid()));
  }).join();
  EXPECT_EQ(line(""), "msg\n");
}

TEST_F(TraceLineTest, DateAndTimeAreThoseOfTheMoment) {
  const auto now = [] {
    timeval moment;
    gettimeofday(&moment, nullptr);  // the clock of the line: another one may lag behind
    std::tm local;
    char text[30];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S.", localtime_r(&moment.tv_sec, &local));
    return String(text);
  };
  // The last two agree in all that the C library shows of a zone.
  for (const char* zone : {"Asia/Kolkata", "Australia/Sydney", "Australia/Brisbane"}) {
    setenv("TZ", zone, 1);
    tzset();
    String before, written;
    do {
      before = now();
      written = line("date,time");
    } while (before != now());  // until both saw one second
    EXPECT_THAT(written, StartsWith(before)) << zone;
  }
  unsetenv("TZ");
  tzset();
}

TEST_F(TraceLineTest, AFormatIsTakenWholeOrNotAtAll) {
  setTraceFormat("level");
  EXPECT_EQ(
      captured([] { setTraceFormat("pid,bogus,Level"); }),
      "bogus is an invalid field in TRACEFORMAT\nSet TRACEFORMAT=help for more information.\n");
  EXPECT_THAT(captured([] { setTraceFormat("help"); }), HasSubstr("  level\n  line-info\n"));
  EXPECT_THAT(captured([&] { TARVO_TRACE_STREAM(handler, 1, ""); }), StartsWith("1 TraceLine"));
}

/// Has no text: throws, or ends a thread that is cancelled.
struct Unshowable {
  friend std::ostream& operator<<(std::ostream&, const Unshowable&) {
    pthread_testcancel();
    throw 5;
  }
};

TEST_F(TraceLineTest, StatementsEvaluateWhatIsOnAndSurviveIt) {
  setTraceFormat("level,func-name");
  int evaluated = 0;
  const auto value = [&] { return ++evaluated; };
  const Tarvo::Debuggable debuggable(handler);
  const String begin =
      "1 TestBody TraceLineTest_StatementsEvaluateWhatIsOnAndSurviveIt_Test::TestBody() ";
  const String unshown = "x  (an argument cannot be shown)";
  EXPECT_EQ(captured([&] {
              TARVO_TRACE(handler, 2, "{}", value());
              TARVO_TRACE_STREAM(debuggable, 0, value());
              TARVO_TRACE(debuggable, 1, "{} of {}", value(), 2);
              TARVO_TRACE_STREAM(*handler, 1, "value " << value());
              TARVO_TRACE(handler, 1, "x {}", Unshowable());
              TARVO_TRACE_STREAM(handler, 1, "x " << Unshowable());
            }),
            fmt::format("{0}1 of 2\n{0}value 2\n{0}{1}\n{0}{1}\n", begin, unshown));
  EXPECT_THAT(failureOf([&] { TARVO_ASSERT(false, "x {}", Unshowable()); }),
              EndsWith("(\"x {}\")"));
  EXPECT_THAT(failureOf([&] { TARVO_ASSERT_STREAM(handler, 2, false, "x " << Unshowable()); }),
              EndsWith("() " + unshown + "\")"));
}

TEST_F(TraceLineTest, AnOrdinaryLineAllocatesNothing) {
  setTraceFormat("date,time,pid,tid,handle,level,line-info,func-name");
  traceTo("/dev/null");
  const String text(300, 't');
  unsigned long before = 0;
  for (int i = 0; i < 20; ++i) {
    if (i == 1) before = allocations;  // what is made at first use is there
    TARVO_TRACE(handler, 1, "{} of {}: {} {:>4} {:.3f} {}", i, 20U, text, i, 0.5, true);
  }
  EXPECT_EQ(allocations, before);
  traceTo(nullptr);
}

TEST_F(TraceLineTest, LinesOfManyThreadsStayWhole) {
  const String path = folder + "/trace";
  setTraceFormat("tid,level");
  traceTo(path.c_str());
  const auto trace = [] {
    const auto own = getDebugHandler("Line");
    for (int i = 0; i < 200; ++i) {
      own->enabledIs(1, true);
      TARVO_TRACE(own, 1, "{:x>600}|", i);
      Tarvo::Platform::clearTarvoDebug("Line/1");  // configuration changes meanwhile
    }
  };
  std::array<std::jthread, 4> threads;
  for (auto& thread : threads) thread = std::jthread(trace);
  for (auto& thread : threads) thread.join();
  traceTo(nullptr);
  std::ifstream lines(path);
  ASSERT_TRUE(lines.peek() != EOF);
  for (String text; std::getline(lines, text);)
    EXPECT_THAT(text, MatchesRegex("[0-9]+ 1 [A-Za-z_:()<>]+ x+[0-9]+\\|"));
}

TEST_F(TraceLineTest, AThreadIsCancelledBesideItsLinesNotInThem) {
  setTraceFormat("");
  int unwound = 0;
  const auto cancelled = [&](auto last) {
    std::jthread([&] {
      const std::shared_ptr<int> count(&unwound, [](int* number) { ++*number; });
      pthread_cancel(pthread_self());
      [&]() noexcept { Tarvo::Platform::dumpDebugMsg("one", 3, 1, handler.get(), "f", "g", 1); }();
      last();
      ++unwound;  // not reached
    });
  };
  EXPECT_EQ(captured([&] {
              cancelled([] { pthread_testcancel(); });
              cancelled([&] { TARVO_TRACE(handler, 1, "x {}", Unshowable()); });
              cancelled([&] { TARVO_TRACE_STREAM(handler, 1, Unshowable()); });
              cancelled([&] { TARVO_FAIL("x {}", Unshowable()); });
            }),
            "one\none\none\none\n");
  EXPECT_EQ(unwound, 4);
}

}  // namespace
