#include "Tarvo/Exception.h"

#include <gtest/gtest.h>

#include "Tarvo/Trace.h"
#include "support/Failure.h"

namespace {

using Tarvo::Backtrace;
using Tarvo::Exception;

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

TEST(ExceptionTest, WhatIsTheMessageAndTheStackOfItsOrigin) {
  const auto e = [] { return Tarvo::InvalidSizeException("bad input"); }();
  EXPECT_EQ(e.msg(), "Tarvo::InvalidSizeException(\"bad input\")");
  const Tarvo::String first = e.what();
  EXPECT_TRUE(first.starts_with(e.msg() + "\nBacktrace:\n")) << first;
  EXPECT_NE(first.find("FoundationTest("), Tarvo::String::npos) << first;
  const auto copy = e;
  EXPECT_EQ(copy.what(), first);
  EXPECT_EQ(e.what(), first);
  EXPECT_STREQ(Exception("m", false).what(),
               "Tarvo::Exception(\"m\")\nNo backtrace available\nBacktrace:\n");
}

/// Keeps what is dumped instead of writing it.
class RecordingHandler : public Tarvo::Platform::DebugHandler {
 public:
  explicit RecordingHandler(std::uint32_t* word) : DebugHandler("Recording", 0, word) {}
  void enabledIs(unsigned, bool) override {}
  void dump(Tarvo::Platform::DebugStream& stream, unsigned level, const char* file, int line,
            const char* func) const override {
    dumped += fmt::format("[{} {} {} {} {}]", stream.str(), level, file, line, func);
  }
  mutable Tarvo::String dumped;
};

TEST(ExceptionTest, AnAssertionTracesOnlyWhenItsLevelIsOn) {
  std::uint32_t word = ~(1U << 3);
  RecordingHandler handler(&word);
  const auto fail = [](auto& traced) {
    return testsupport::failureOf([&] {
      Tarvo::Platform::DebugStream stream;
      stream << "broken " << 7;
      Tarvo::debugAndThrowAssertException(traced, 3, stream, "a/b.cpp", "run", 12);
    });
  };
  const Tarvo::String expected = "Tarvo::AssertException(\"a/b.cpp:run:12: broken 7\")";
  Tarvo::Platform::DebugHandler* none = nullptr;
  EXPECT_EQ(fail(none), expected);
  EXPECT_EQ(fail(handler), expected);
  EXPECT_EQ(handler.dumped, "");
  word = 1U << 3;
  EXPECT_EQ(fail(handler), expected);
  EXPECT_EQ(handler.dumped, "[a/b.cpp:run:12: broken 7 3 a/b.cpp 12 run]");
}

}  // namespace
