#include "Tarvo/Exception.h"

#include "Tarvo/Trace.h"
#include "support/Test.h"

namespace {

using namespace testsupport;
using Tarvo::Backtrace;

[[gnu::noinline]] void expectBacktraceFromCaller() {
  Backtrace here(false);
  here.unwind();
  EXPECT_EQ(here.address(1), __builtin_return_address(0));
}

TEST(BacktraceTest, BeginsWithTheCallerOfUnwind) {
  for (int round = 0; round < 3; ++round)
    expectBacktraceFromCaller();  // the cache is cold, then warm
}

TEST(ExceptionTest, WhatIsTheMessageAndTheStackOfItsOrigin) {
  const auto e = [] { return Tarvo::InvalidSizeException("bad input"); }();
  EXPECT_EQ(e.msg(), "Tarvo::InvalidSizeException(\"bad input\")");
  const String first = e.what();
  EXPECT_THAT(first, AllOf(StartsWith(e.msg() + "\nBacktrace:\n"), HasSubstr("FoundationTest(")));
  EXPECT_EQ(Tarvo::InvalidSizeException(e).what(), first);
  EXPECT_STREQ(Tarvo::Exception("m", false).what(),
               "Tarvo::Exception(\"m\")\nNo backtrace available\nBacktrace:\n");
}

TEST(ExceptionTest, AnAssertionTracesOnlyWhenItsLevelIsOn) {
  Tarvo::Platform::setTraceFormat("handle,level");
  const auto handler = getDebugHandler("Asserting");
  const auto failing = [&] {
    Tarvo::Platform::DebugStream stream;
    stream << "broken " << 7;
    Tarvo::debugAndThrowAssertException(*handler, 3, stream, "a/b.cpp", "run", 12);
  };
  EXPECT_EQ(captured([&] { EXPECT_THAT(failureOf(failing), HasSubstr("12: broken 7\")")); }), "");
  handler->enabledIs(3, true);
  EXPECT_EQ(captured([&] { failureOf(failing); }), "Asserting 3 a/b.cpp:run:12: broken 7\n");
}

}  // namespace
