#include "Tarvo/Exception.h"

#include "Tarvo/TypeName.h"
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

TEST(BacktraceTest, OffsetsCountFromTheSymbolOrElseTheModule) {
  const String text = Tarvo::RuntimeException("m").what();
  std::istringstream lines(text);
  std::set<bool> seen;
  for (String line; std::getline(lines, line);) {
    char name[300];
    unsigned long offset;
    void* address;
    const bool named =
        sscanf(line.c_str(), "%*[^(](%299[^+]+%lx)[%p]", name, &offset, &address) == 3;
    if (!named && sscanf(line.c_str(), "%*[^(](+%lx)[%p]", &offset, &address) != 2) continue;
    Dl_info module;
    ASSERT_NE(dladdr(address, &module), 0);
    const void* from = named ? dlsym(RTLD_DEFAULT, name) : module.dli_fbase;
    EXPECT_EQ(static_cast<const char*>(from) + offset, address) << line;
    seen.insert(named);
  }
  EXPECT_EQ(seen.size(), 2U) << text;
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

template <typename... Family>
void expectNamed() {
  const auto thrown = {errorOf<Tarvo::Exception>([] { Family::throwException("m"); })...};
  EXPECT_THAT(thrown, ElementsAre(Tarvo::typeName(typeid(Family).name()) + "(\"m\")" ...));
}

TEST(ExceptionTest, EachOfTheFamilyThrowsItself) {
  expectNamed<
      Tarvo::MemoryResourceException, Tarvo::NoPermissionException, Tarvo::UnimplementedException,
      Tarvo::InvalidInitializeException, Tarvo::RuntimeException, Tarvo::OutOfRangeException,
      Tarvo::CorruptionDetectedException, Tarvo::InvalidSizeException, Tarvo::AssertException>();
}

}  // namespace
