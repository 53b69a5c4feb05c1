#include <gmock/gmock-matchers.h>
#include <gtest/gtest.h>

#include <fcntl.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "Tarvo/Debug.h"
#include "Tarvo/FileLock.h"
#include "support/ChildProcess.h"

namespace {

using Tarvo::String;
using testing::AllOf;
using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using testsupport::ChildResult;

String contents(const String& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

ChildResult helper(const std::string& what, const std::string& environment = "") {
  return testsupport::runProgram(environment + " " PROCESS_HELPER " " + what);
}

TEST(LoadTest, TheDefaultsCoverTheLibraryOnly) {
  EXPECT_EQ(helper("list").out,
            "TaskScheduler 0\nTarvoX 3\nFoo 0\n1 1 0 1 1 1 0 0\nTRACE=(unset)\n");
}

TEST(LoadTest, TheEnvironmentAddsToThem) {
  const auto child = helper("list", "'TRACE=*/5,Foo/1' TRACEFORMAT=pid,level");
  // Handles made later match the shorter prefix. The record of Foo took it in when it was made.
  EXPECT_EQ(child.out, "TaskScheduler 20\nTarvoX 20\nFoo 22\n0 0 1 0 0 1 0 0\nTRACE=*/5,Foo/1\n");
  EXPECT_EQ(helper("list", "'TRACE=*/5' TRACEFORMAT=pid PRIVILEGED=1").out,
            "TaskScheduler 0\nTarvoX 3\nFoo 0\n1 1 0 1 1 1 0 0\nTRACE=*/5\n");
  EXPECT_EQ(helper("list", "TRACEFORMAT=").out.substr(31), "0 0 0 0 0 0 0 0\nTRACE=(unset)\n");
}

TEST(LoadTest, AFileThatCannotBeOpenedIsReportedByBothSetUps) {
  const std::string report =
      "Error opening TRACEFILE=/no/dir/t\nDefaulting to std::cerr for trace output.\n";
  EXPECT_EQ(helper("compat", "TRACEFILE=/no/dir/t").err, report + report);
}

/// A trace file with old contents, to which nobody traces at the end.
struct TraceFileTest : testing::Test {
  TraceFileTest() { std::ofstream(path) << "old"; }
  ~TraceFileTest() override {
    unsetenv("TRACEFILE");
    Tarvo::Platform::setupTarvoDebug("");
    std::filesystem::remove(path);
  }
  void open() const {
    setenv("TRACEFILE", path.c_str(), 1);
    Tarvo::Platform::setupTarvoDebug("");
    Tarvo::Platform::dumpDebugMsg("own", 3, 0, nullptr, nullptr, nullptr, 0);
  }
  int traceInChild(const String& more = "") const {
    return helper("exit", "'TRACE=*/1' TRACEFORMAT=handle TRACEFILE=" + path + more).exitCode;
  }
  const String path = testing::TempDir() + "trace." + std::to_string(getpid());
  const String childs =
      "Thread ThreadWords::~ThreadWords() thread words\n"
      "Exit LastWords::~LastWords() last words\n";
};

TEST_F(TraceFileTest, IsEmptiedByTheFirstToOpenIt) {
  EXPECT_EQ(traceInChild(" PRIVILEGED=1"), 0);
  EXPECT_EQ(contents(path), "old") << "a privileged process follows its caller";
  EXPECT_EQ(traceInChild(), 0);
  EXPECT_EQ(contents(path), childs) << "also while thread and process end";
  Tarvo::Platform::clearTraceFormat();
  open();
  open();  // it is open already
  EXPECT_EQ(traceInChild(), 0);
  EXPECT_EQ(traceInChild(), 0);
  EXPECT_EQ(contents(path), "own\nown\n" + childs + childs);
  std::filesystem::resize_file(path, 0);  // as one rotates such a file
  open();
  EXPECT_EQ(contents(path), "own\n");
}

TEST_F(TraceFileTest, IsNoStandardDescriptorAndNeitherIsALockFile) {
  const auto trace = Tarvo::Platform::getDebugHandler("Daemon");
  const auto child = testsupport::runForked([&] {
    for (const int fd : {0, 1, 2}) close(fd);
    open();
    Tarvo::FileLock lock(*trace, testing::TempDir(), "lock." + std::to_string(getpid()));
    const bool locked = lock.lock(false);
    std::filesystem::remove(lock.file());
    for (const int fd : {0, 1, 2}) {
      if (fcntl(fd, F_GETFD) != -1) return 10 + fd;
    }
    return locked ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode, 0);
  EXPECT_THAT(contents(path), EndsWith("own\n"));
}

TEST(LastWordsTest, AnAssertionReportsAndClaimsNoException) {
  for (const char* how : {"assert", "assert-in-catch"}) {
    const auto child = helper(how);
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_THAT(
        child.err,
        AllOf(StartsWith("Tarvo::Assert aborting because: tests/process/ProcessHelper.cpp:"),
              ContainsRegex("[0-9]: reason 5\nBacktrace:\n"), EndsWith("]\n\n"),
              Not(HasSubstr("terminate called"))));
  }
  EXPECT_THAT(helper("fatal").err,
              ContainsRegex("because: LibeventFactoryCpp:[0-9]+: "
                            "Tarvo::le_fatal_cb\\(\\) libevent fatal error:3\n"));
}

TEST(LastWordsTest, AnEscapedExceptionIsNamedAndShown) {
  EXPECT_THAT(helper("throw assert").err,
              StartsWith("terminate called after throwing an instance of 'Tarvo::AssertException'\n"
                         "  what(): Tarvo::AssertException(\""));
  const auto family = helper("family").err;
  EXPECT_THAT(family, StartsWith("terminate called after throwing an instance of "
                                 "'Tarvo::RuntimeException'\n"
                                 "  what(): Tarvo::RuntimeException(\"boom\")\nBacktrace:\n"));
  EXPECT_EQ(family.find("Backtrace:"), family.rfind("Backtrace:"));
  EXPECT_THAT(helper("zero").err, HasSubstr(String("(\"a\0b\")\nBacktrace:\n", 18)));
  EXPECT_THAT(helper("standard").err,
              StartsWith("terminate called after throwing an instance of "
                         "'std::runtime_error'\n  what(): boomBacktrace:\n"));
  EXPECT_THAT(helper("no-memory").err, StartsWith("terminate called after throwing an instance of "
                                                  "'St13runtime_error'\n  what(): boom\n"));
  EXPECT_THAT(helper("number").err,
              StartsWith("terminate called after throwing an instance of 'int'\nBacktrace:\n"));
  EXPECT_THAT(helper("terminate").err, StartsWith("Backtrace:\n"));
  const auto unspeakable = helper("unspeakable");
  EXPECT_EQ(unspeakable.signal, SIGABRT);  // and not the end of an endless recursion
  EXPECT_THAT(unspeakable.err, EndsWith("Unspeakable'\n"));
  EXPECT_THAT(helper("standard", "TARVO_BACKTRACE_VERBOSITY=00").err, HasSubstr("Backtrace:\n"));
  const std::string quiet = "TARVO_BACKTRACE_VERBOSITY=0";
  EXPECT_THAT(helper("standard", quiet).err, EndsWith("'\n  what(): boom\n"));
  EXPECT_THAT(helper("family", quiet).err, HasSubstr("Backtrace:\n"));
}

TEST(LastWordsTest, PlainAbortsIgnoreTheSwitch) {
  const auto composed = helper("throw abort");
  EXPECT_EQ(composed.signal, SIGABRT);
  EXPECT_THAT(composed.err, AllOf(StartsWith("ProcessHelper: tests/process/ProcessHelper.cpp:"),
                                  EndsWith(": Assertion `composed text' failed.\n")));
  EXPECT_THAT(helper("throw abort-odd").err, EndsWith("Assertion `odd {:{}}' failed.\n"));
  EXPECT_THAT(helper("throw check").err,
              EndsWith(": Assertion `what == \"other\" && \"the reason\"' failed.\n"));
}

TEST(LastWordsTest, FormattingAloneHasNoWriter) {
  EXPECT_THAT(testsupport::runProgram(FMT_ALONE).err,
              EndsWith(": Assertion `false && \"No debug handler found for platform\"' failed.\n"));
}

TEST(LoadTest, TheCheckOpensAPrivateLibraryToEverybody) {
  EXPECT_EQ(testsupport::runProgram(FMT_ALONE " " LIBRARY).exitCode, 0);
}

TEST(LoadTest, ACompatibleProcessIsLeftAlone) {
  const auto child = helper("compat compat");
  EXPECT_EQ(child.exitCode, 0);
  EXPECT_EQ(child.err, "");
#ifndef __SANITIZE_ADDRESS__  // whose runtime insists on coming first
  EXPECT_THAT(helper("compat", "LD_PRELOAD=" INCOMPATIBLE).err,
              HasSubstr("Assertion `platformLibPresenceFlag == Tarvo::PLATFORM_LIB_FLAG_TARVO && "
                        "\"a library incompatible with Tarvo has been loaded\"' failed"));
#endif
}

}  // namespace
