#include <sys/time.h>
#include <syslog.h>

#include "Tarvo/Thread.h"
#include "Tarvo/Trace.h"
#include "Tarvo/TraceSink.h"
#include "support/AllocationCount.h"
#include "support/Test.h"

namespace {

using namespace testsupport;
using Tarvo::Platform::setTraceFormat, Tarvo::Platform::traceSinkIs;
using namespace std::string_view_literals;

String logged;  // by syslog()

}  // namespace

extern "C" [[gnu::visibility("default")]] void syslog(int priority, const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  logged += fmt::format("{} {}|", priority, va_arg(args, const char*));
  va_end(args);
}

namespace {

struct TraceLineTest : TempFolder {
  TraceLineTest() { handler->enabledIs(1, true); }
  ~TraceLineTest() override {
    setTraceFormat("date,time,tid,handle,level");
    Tarvo::Platform::setTraceSink("");
  }

  static void traceTo(const char* path) {
    path != nullptr ? setenv("TRACEFILE", path, 1) : unsetenv("TRACEFILE");
    Tarvo::Platform::setupTarvoDebug("");
  }
  String line(const char* format) {
    setTraceFormat(format);
    return captured([&] { dump("msg"); });
  }

  void dump(std::string_view message, unsigned level = 1) const {
    Tarvo::Platform::dumpDebugMsg(message.data(), static_cast<unsigned>(message.size()), level,
                                  handler.get(), "/a/F.cpp", "run", 42);
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
  std::cerr.setstate(std::ios::badbit);
  EXPECT_EQ(line(""), "msg\n") << "an earlier write that failed is forgotten";
  std::cerr.clear();
}

TEST_F(TraceLineTest, DateAndTimeAreThoseOfTheMoment) {
  const auto now = [] {
    timeval moment;
    gettimeofday(&moment, nullptr);  // the clock of the line: another one may lag behind
    std::ostringstream text;
    text << std::put_time(std::localtime(&moment.tv_sec), "%F %T.");
    return text.str();
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
  EXPECT_EQ(
      captured([] { setTraceFormat("help"); }),
      "Usage:\n  TRACEFORMAT=field,field,...\nList of possible fields:\n  date\n  time\n  pid\n"
      "  tid\n  handle\n  level\n  line-info\n  func-name\n");
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
  const auto traced = captured([&] {
    for (const unsigned level : {1U, 2U})
      EXPECT_THAT(
          failureOf([&] { TARVO_ASSERT_STREAM(handler, level, false, "x " << Unshowable()); }),
          EndsWith("() " + unshown + "\")"));
  });
  EXPECT_THAT(traced, MatchesRegex("1 [^\n]*tests/trace/TraceLineTest.cpp:[^\n]*shown\\)\n"));
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
      [&]() noexcept { dump("one"); }();
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

struct Sink : Tarvo::Platform::TraceSink {
  using Body = std::function<bool(const Tarvo::Platform::TraceRecord&)>;
  explicit Sink(Body doThis) : body(std::move(doThis)) {}
  ~Sink() override {
    TARVO_TRACE(getDebugHandler("Line"), 0, "dropped: the channel has no levels");
  }
  bool traceRecord(const Tarvo::Platform::TraceRecord& record) override { return body(record); }
  Body body;
};

TEST_F(TraceLineTest, ASinkIsGivenTheRecordAndALineIsWhatItDoesNotTake) {
  const auto begun = std::chrono::system_clock::now();
  String seen;
  traceSinkIs(std::make_shared<Sink>([&](const auto& record) -> bool {
    seen += fmt::format("{} {} {} {}:{} {} {}|", record.level, record.channel, record.thread,
                        record.file, record.line, record.function, record.message);
    EXPECT_TRUE(begun <= record.time && record.time <= begun + std::chrono::minutes(1));
    TARVO_TRACE(handler, 1, "dropped");
    errno = 0;
    if (record.message == "none") throw 5;
    return record.channel == "Line";
  }));
  errno = 7;
  EXPECT_EQ(line("level,handle"), "");
  EXPECT_EQ(errno, 7);
  const auto threw = Tarvo::Platform::traceSinkThrewCount();
  EXPECT_EQ(captured([] {
              for (const char* text : {"none", "left"})
                Tarvo::Platform::dumpDebugMsg(text, 4, 2, nullptr, nullptr, nullptr, 0);
            }),
            "2 none\n2 left\n");
  EXPECT_EQ(Tarvo::Platform::traceSinkThrewCount(), threw + 1);
  EXPECT_EQ(seen, fmt::format("1 Line {0} /a/F.cpp:42 run msg|2  {0} :0  none|2  {0} :0  left|",
                              Tarvo::gettid()));
  EXPECT_EQ(captured([] { Tarvo::Platform::setTraceSink("Json"); }),
            "Json is an invalid TRACESINK, which may be json or syslog\n");
  EXPECT_EQ(line(""), "") << "an unknown name changes nothing";
  traceSinkIs(nullptr);
  EXPECT_EQ(line(""), "msg\n");
}

TEST_F(TraceLineTest, SinksAreReplacedWhileThreadsTrace) {
  std::atomic<int> records = 0;
  const auto replace = [&](auto number) {
    traceSinkIs(
        std::make_shared<Sink>([&, number](const auto&) { return *number + ++records > 0; }));
  };
  replace(std::make_shared<int>(0));
  std::array<std::jthread, 3> threads;
  for (auto& thread : threads) {
    thread = std::jthread([&](const std::stop_token& stop) {
      while (!stop.stop_requested()) dump("msg");
    });
  }
  for (int number = 1; number < 1000 || records < 1000; ++number)
    replace(std::make_shared<int>(number));
  threads = {};
  EXPECT_EQ(Tarvo::Platform::traceSink().use_count(), 2) << "no thread keeps what it has used";
}

TEST_F(TraceLineTest, JsonIsOneLineAndValidWhateverTheMessage) {
  setTraceFormat("");
  Tarvo::Platform::setTraceSink("json");
  EXPECT_THAT(
      captured([&] { dump("a\n\"\0\xff\u00e9"sv, 3); }),
      MatchesRegex(
          "\\{\"time\":\"[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6}Z\","
          "\"level\":3,\"channel\":\"Line\",\"process\":" +
          std::to_string(getpid()) + ",\"thread\":" + std::to_string(Tarvo::gettid()) +
          ",\"file\":\"/a/F.cpp\",\"line\":42,"
          "\"function\":\"run\",\"message\":\"a\\\\n\\\\\"\\\\u0000\uFFFD\u00e9\"\\}\n"));
  const auto unmade = captured([&] { refusedAllocation = 1, dump("no memory"); });
  EXPECT_EQ(unmade, "no memory\n");
}

TEST_F(TraceLineTest, SyslogIsToldTheLevelUnlessItsLockMayBeLost) {
  Tarvo::Platform::setTraceSink("syslog");
  logged.clear();
  for (const unsigned level : {0U, 1U, 4U, 5U}) dump("m\0%s"sv, level);
  const auto line = [](const char* priority, int level) {
    return fmt::format("{} {} Line {} m %s|", priority, Tarvo::gettid(), level);
  };
  EXPECT_EQ(logged, line("3", 0) + line("5", 1) + line("6", 4) + line("7", 5));
  setTraceFormat("");
  std::jthread([&] {
    EXPECT_EQ(runForked([&] { return dump("forked among threads"), 0; }).err,
              "forked among threads\n");
  }).join();
}

}  // namespace
