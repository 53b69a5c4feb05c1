#include "Tarvo/FileLock.h"
#include "Tarvo/Util.h"
#include "support/Test.h"

namespace {

using namespace testsupport;
using Tarvo::Platform::setupTarvoDebug;

ChildResult helper(const std::string& what, const std::string& environment = "") {
  return runProgram(environment + " " PROCESS_HELPER " " + what);
}

TEST(LoadTest, TheEnvironmentAddsToTheDefaultsWhichCoverTheLibraryOnly) {
  const std::string plain = "TaskScheduler 0\nTarvoX 3\nFoo 0\n1 1 0 1 1 1 0 0\n";
  EXPECT_EQ(helper("list").out, plain + "TRACE=(unset)\n");
  EXPECT_EQ(helper("list", "TRACE=Foo/1 TRACEFORMAT=pid PRIVILEGED=1").out,
            plain + "TRACE=Foo/1\n");
  // Handles made later match the shorter prefix. The record of Foo took it in when it was made.
  EXPECT_EQ(helper("list", "'TRACE=*/5,Foo/1' TRACEFORMAT=pid,level").out,
            "TaskScheduler 20\nTarvoX 20\nFoo 22\n0 0 1 0 0 1 0 0\nTRACE=*/5,Foo/1\n");
  EXPECT_THAT(helper("list", "TRACEFORMAT=").out, HasSubstr("\n0 0 0 0 0 0 0 0\n"));
}

TEST(LoadTest, TheLimitOfAWaitIsANumberOrNone) {
  const std::string complained = "infParsing the WAITFOR_DEFAULT env. variable failed";
  for (const auto& [variable, shown] : {std::pair<const char*, std::string>("", "inf"),
                                        {"WAITFOR_DEFAULT=2.5", "2.5"},
                                        {"WAITFOR_DEFAULT=soon", complained},
                                        {"WAITFOR_DEFAULT=nan", complained}}) {
    const auto child = helper("waitfor", variable);
    EXPECT_EQ(child.out + child.err, shown);
  }
}

TEST(LoadTest, AFileThatCannotBeOpenedIsReportedByBothSetUps) {
  const std::string report =
      "Error opening TRACEFILE=/no/dir/t\nDefaulting to std::cerr for trace output.\n";
  EXPECT_EQ(helper("compat", "TRACEFILE=/no/dir/t").err, report + report);
}

/// A trace file with old contents, to which nobody traces at the end.
struct TraceFileTest : TempFolder {
  TraceFileTest() { std::ofstream(path) << "old"; }
  ~TraceFileTest() override {
    unsetenv("TRACEFILE");
    setupTarvoDebug("");
  }
  static void trace(std::string_view text) {
    Tarvo::Platform::dumpDebugMsg(text.data(), 3, 0, nullptr, nullptr, nullptr, 0);
  }
  void open() const {
    setenv("TRACEFILE", path.c_str(), 1);
    setupTarvoDebug("");
    trace("own");
  }
  String contents() const { return Tarvo::Util::fileRead(path); }
  String afterChild(const String& more = "") const {
    helper("exit", "'TRACE=*/1' TRACEFORMAT=handle TRACEFILE=" + path + more);
    return contents();
  }
  const String path = folder + "/trace";
};

TEST_F(TraceFileTest, IsEmptiedByTheFirstToOpenIt) {
  const String childs =
      "Thread LastWords::~LastWords() last words\n"
      "Exit LastWords::~LastWords() last words\n";
  EXPECT_EQ(afterChild(" PRIVILEGED=1"), "old") << "a privileged process follows its caller";
  EXPECT_EQ(afterChild(), childs) << "also while thread and process end";
  EXPECT_EQ(afterChild(" TRACESINK=none"), childs);
  EXPECT_THAT(afterChild(" TRACESINK=json"),
              MatchesRegex("\\{.*Thread.*ords\\(\\) last words\"\\}\n\\{.*Exit.*\\}\n"));
  Tarvo::Platform::clearTraceFormat();
  open();
  open();  // it is open already
  EXPECT_EQ(afterChild(), "own\nown\n" + childs);
  std::filesystem::resize_file(path, 0);  // as one rotates such a file
  open();
  EXPECT_EQ(contents(), "own\n");
}

TEST_F(TraceFileTest, IsOpenedAgainUnderItsNameAndKeptWhereThatFails) {
  Tarvo::Platform::clearTraceFormat();
  EXPECT_TRUE(Tarvo::Platform::reopenTraceFile()) << "there is none";
  open();
  const long opened = openDescriptors();
  EXPECT_TRUE(Tarvo::Platform::reopenTraceFile());
  std::filesystem::rename(path, path + ".1");
  std::filesystem::create_directory(path);
  EXPECT_FALSE(Tarvo::Platform::reopenTraceFile());
  EXPECT_EQ(errno, EISDIR);
  trace("kept");
  std::filesystem::remove(path);
  EXPECT_TRUE(Tarvo::Platform::reopenTraceFile());
  trace("new");
  EXPECT_EQ(helper("compat", "TRACEFILE=" + path).exitCode, 0);
  EXPECT_EQ(contents(), "new\n") << "others know that it is shared";
  std::filesystem::rename(path + ".1", path);
  EXPECT_EQ(contents(), "own\nkep\n") << "and the same one is not emptied";
  EXPECT_EQ(openDescriptors(), opened);
}

TEST_F(TraceFileTest, IsNoStandardDescriptorAndNeitherIsALockFile) {
  const auto handler = getDebugHandler("Daemon");
  const auto child = runForked([&] {
    for (const int fd : {0, 1, 2}) close(fd);
    open();
    Tarvo::FileLock lock(*handler, folder, "lock");
    if (!lock.lock(false)) return 4;
    for (const int fd : {0, 1, 2})
      if (fcntl(fd, F_GETFD) != -1) return fd + 1;
    return 0;
  });
  EXPECT_EQ(child.exitCode, 0);
  EXPECT_THAT(contents(), EndsWith("own\n"));
}

TEST(LastWordsTest, AnAssertionReportsAndClaimsNoException) {
  EXPECT_THAT(helper("assert").err,
              MatchesRegex("Tarvo::Assert aborting because: tests/process/ProcessHelper.cpp:"
                           "[0-9]+: reason 5\nBacktrace:\n.*]\n\n"));
}

TEST(LastWordsTest, AnEscapedExceptionIsNamedAndShown) {
  const std::string named = "terminate called after throwing an instance of ";
  const std::pair<const char*, std::string> reports[] = {
      {"throw assert", named + "'Tarvo::AssertException'\n  what(): Tarvo::AssertException(\""},
      {"family", named +
                     "'Tarvo::RuntimeException'\n"
                     "  what(): Tarvo::RuntimeException(\"bo" +
                     std::string("\0m", 2) + "\")\nBacktrace:\n"},
      {"standard", named + "'std::runtime_error'\n  what(): boomBacktrace:\n"},
      {"number", named + "'int'\nBacktrace:\n"},
      {"terminate", "Backtrace:\n"}};
  for (const auto& [how, report] : reports) {
    const auto text = helper(how).err;
    EXPECT_THAT(text, StartsWith(report));
    EXPECT_EQ(text.find("Backtrace:"), text.rfind("Backtrace:"));
  }
  const auto unspeakable = helper("unspeakable");
  EXPECT_EQ(unspeakable.signal, SIGABRT);  // and not the end of an endless recursion
  EXPECT_THAT(unspeakable.err, EndsWith("Unspeakable'\n"));
  const std::string verbosity = "TARVO_BACKTRACE_VERBOSITY=0";
  EXPECT_THAT(helper("standard", verbosity).err, EndsWith("'\n  what(): boom\n"));
  EXPECT_THAT(helper("family", verbosity).err, HasSubstr("Backtrace:\n"));
  EXPECT_THAT(helper("standard", verbosity + "0").err, HasSubstr("Backtrace:\n"));
  EXPECT_EQ(helper("memory number").err, named + "'i'\n");
  EXPECT_EQ(helper("memory standard").err, named + "'St9bad_alloc'\n  what(): std::bad_alloc\n");
}

TEST(LastWordsTest, PlainAbortsIgnoreTheSwitch) {
  for (const auto& [how, text] :
       {std::pair("abort", "composed text"), {"check", R"(what == "other" && "the reason")"}}) {
    const auto child = helper(std::string("throw ") + how);
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_THAT(child.err, AllOf(StartsWith("ProcessHelper: tests/process/ProcessHelper.cpp:"),
                                 EndsWith(String(": Assertion `") + text + "' failed.\n")));
  }
}

#ifndef __SANITIZE_ADDRESS__  // whose runtime insists on coming first
TEST(LoadTest, TheCheckRefusesAnotherLibraryOfTheSamePlatformLayer) {
  EXPECT_EQ(helper("compat").err, "");
  EXPECT_THAT(helper("compat", "LD_PRELOAD=" INCOMPATIBLE).err,
              HasSubstr("\"a library incompatible with Tarvo has been loaded\"' failed"));
}
#endif

}  // namespace
