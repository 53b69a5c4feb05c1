#include "Tarvo/Exception.h"

#include <gtest/gtest.h>

#include "Tarvo/Trace.h"

namespace {

using Tarvo::Backtrace;
using Tarvo::Exception;

/// Captures its own stack and tells where it was called from.
[[gnu::noinline]] Backtrace captureHere(void*& calledFrom) {
  calledFrom = __builtin_return_address(0);
  Backtrace here(false);
  here.unwind();
  return here;
}

TEST(BacktraceTest, BeginsWithTheCallerOfUnwind) {
  for (int round = 0; round < 3; ++round) {  // the unwinder's cache is cold, then warm
    void* calledFrom = nullptr;
    const Backtrace here = captureHere(calledFrom);
    ASSERT_GE(here.size(), 2U);
    EXPECT_EQ(here.address(1), calledFrom);
  }
}

[[gnu::noinline]] unsigned deepSize(int depth) {
  const unsigned size = depth > 0 ? deepSize(depth - 1) : Backtrace(true).size();
  asm volatile("");  // no tail call
  return size;
}

TEST(BacktraceTest, StopsAtItsCapacity) { EXPECT_EQ(deepSize(300), Backtrace::maxFrames); }

TEST(BacktraceTest, PrettySaysWhenThereIsNothing) {
  EXPECT_EQ(Backtrace(false).pretty(), "No backtrace available\nBacktrace:\n");
  const auto text = Backtrace(true).pretty();
  EXPECT_TRUE(text.starts_with("Backtrace:\n")) << text;
  EXPECT_NE(text.find("FoundationTest("), Tarvo::String::npos) << text;
  EXPECT_TRUE(text.ends_with("]\n")) << text;
}

Tarvo::RuntimeException makeElsewhere() { return Tarvo::RuntimeException("bad input"); }

TEST(ExceptionTest, WhatIsTheMessageAndTheStackOfItsOrigin) {
  const auto e = makeElsewhere();
  EXPECT_EQ(e.msg(), "Tarvo::RuntimeException(\"bad input\")");
  const Tarvo::String first = e.what();
  EXPECT_TRUE(first.starts_with(e.msg() + "\nBacktrace:\n")) << first;
  const auto copy = e;
  EXPECT_EQ(copy.what(), first);
  EXPECT_EQ(e.what(), first);

  EXPECT_STREQ(Exception("m", false).what(),
               "Tarvo::Exception(\"m\")\nNo backtrace available\nBacktrace:\n");
}

TEST(ExceptionTest, TheFamilyIsCaughtByItsBases) {
  EXPECT_THROW(Tarvo::InvalidSizeException::throwException("s"),
               Tarvo::CorruptionDetectedException);
  EXPECT_THROW(Tarvo::NoPermissionException::throwException("p"), Exception);
  EXPECT_THROW(Tarvo::AssertException::throwException("a"), std::exception);
}

/// Keeps what is dumped instead of writing it.
class RecordingHandler : public Tarvo::Platform::DebugHandler {
 public:
  explicit RecordingHandler(std::uint32_t levels) : DebugHandler("Recording", levels) {}
  void enabledIs(unsigned level, bool enable) override {
    changeLevels(enable ? 1U << level : 0, enable ? 0 : 1U << level);
  }
  void dump(Tarvo::Platform::DebugStream& stream, unsigned level, const char* file, int line,
            const char* func) const override {
    dumped += fmt::format("[{} {} {} {} {}]", stream.str(), level, file, line, func);
  }
  mutable Tarvo::String dumped;
};

Tarvo::String failTraced(Tarvo::Platform::DebugHandler* handler) {
  Tarvo::Platform::DebugStream stream;
  stream << "broken " << 7;
  try {
    Tarvo::debugAndThrowAssertException(handler, 3, stream, "a/b.cpp", "run", 12);
  } catch (const Tarvo::AssertException& e) {
    return e.msg();
  }
}

TEST(ExceptionTest, AnAssertionTracesOnlyWhenItsLevelIsOn) {
  RecordingHandler on(1U << 3);
  RecordingHandler off(~(1U << 3));
  const Tarvo::String expected = "Tarvo::AssertException(\"a/b.cpp:run:12: broken 7\")";
  EXPECT_EQ(failTraced(&on), expected);
  EXPECT_EQ(failTraced(&off), expected);
  EXPECT_EQ(failTraced(nullptr), expected);
  EXPECT_EQ(on.dumped, "[a/b.cpp:run:12: broken 7 3 a/b.cpp 12 run]");
  EXPECT_EQ(off.dumped, "");
}

}  // namespace
