#include "Tarvo/Exception.h"

#include <dlfcn.h>
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "Tarvo/Trace.h"
#include "support/Failure.h"

extern "C" const char __executable_start;  // made by the linker

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

TEST(BacktraceTest, OffsetsCountFromTheSymbolOrTheStartOfTheFile) {
  static Backtrace inside(false);
  const int key = 0;
  // The function itself, not its inline twin nor a sanitizer's.
  void* const search = dlsym(dlopen("libc.so.6", RTLD_LAZY | RTLD_NOLOAD), "bsearch");
  reinterpret_cast<decltype(&std::bsearch)>(search)(&key, &key, 1, sizeof key,
                                                    [](const void*, const void*) {
                                                      inside.unwind();
                                                      return 0;
                                                    });
  const auto shown = [](void* address, const char* symbol, const void* from) {
    return fmt::format("{}+{:#x})[{}]\n", symbol,
                       static_cast<char*>(address) - static_cast<const char*>(from), address);
  };
  const Tarvo::String text = inside.pretty();
  EXPECT_NE(text.find(shown(inside.address(0), "(", &__executable_start)), Tarvo::String::npos)
      << text;
  EXPECT_NE(text.find(shown(inside.address(1), "(bsearch", search)), Tarvo::String::npos) << text;
}

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

TEST(ExceptionTest, AnAssertionTracesOnlyWhenItsLevelIsOn) {
  Tarvo::Platform::setTraceFormat("handle,level");
  const auto handler = Tarvo::Platform::getDebugHandler("Asserting");
  for (const bool on : {false, true}) {
    handler->enabledIs(3, on);
    testing::internal::CaptureStderr();
    EXPECT_EQ(testsupport::failureOf([&] {
                Tarvo::Platform::DebugStream stream;
                stream << "broken " << 7;
                Tarvo::debugAndThrowAssertException(*handler, 3, stream, "a/b.cpp", "run", 12);
              }),
              "Tarvo::AssertException(\"a/b.cpp:run:12: broken 7\")");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              on ? "Asserting 3 a/b.cpp:run:12: broken 7\n" : "");
  }
}

}  // namespace
