#include "Tarvo/Assert.h"
#include "Tarvo/DisplayPointer.h"
#include "Tarvo/Introspection.h"
#include "Tarvo/Platform.h"
#include "support/Test.h"

namespace {

using Tarvo::DisplayPointer;

template <typename... Args>
Tarvo::String message(fmt::string_view format, const Args&... args) {
  return Tarvo::Fmt::Impl::vformatstr(false, "run", "Task", format,
                                      fmt::make_format_args(Tarvo::Impl::displayed(args)...));
}

struct Shape {
  friend std::ostream& operator<<(std::ostream& out, const Shape&) { return out << "a shape"; }
};

TEST(TextTest, ArgumentsShowInTheirOwnForm) {
  const char* nothing = nullptr;
  const auto* address = reinterpret_cast<int*>(0xabcdef);
  EXPECT_EQ(message("{} {} {}", Shape(), nothing, nullptr), "a shape NULL NULL");
  EXPECT_EQ(message("{} {}", address, static_cast<const void*>(address)), "0x00abcdef 0x00abcdef");
  std::ostringstream out;  // whose state stays as it was
  out << std::left << std::setfill('*') << std::setw(4) << std::oct << DisplayPointer(address) << 8;
  EXPECT_EQ(out.str(), "0x00abcdef10**");
}

TEST(TextTest, ValuesShowByTheirTypesPrinterOrAsBytes) {
  const unsigned char bytes[] = {0x0a, 0xff};
  const auto printer = Tarvo::Platform::getValuePrinter("Two", 2);
  for (const auto& [text, shown] :
       {std::pair("one", "one"), {"another", "another"}, {"", "0aff"}}) {
    Tarvo::introspectionPrinterIs("Two", [=](const void*) { return Tarvo::String(text); });
    EXPECT_EQ(printer->toString(&bytes), shown);
  }
  Tarvo::introspectionPrinterIs("Two", {});
  EXPECT_EQ(printer->toString(&bytes), "0aff");
  EXPECT_EQ(printer->toString(nullptr), "");
}

/// What `format` gives, errors included.
template <typename Format, typename... Args>
Tarvo::String textOf(Format format, const Args&... args) {
  try {
    return format(args...);
  } catch (const fmt::format_error& e) {
    return e.what();
  }
}

// Plain messages do not pass through the formatting library; nobody may notice.
TEST(TextTest, EveryMessageReadsAsTheFormattingLibraryWritesIt) {
  const Tarvo::String text(700, 'l');  // longer than the storage on the stack
  const std::string_view zero("v\0w", 3);
  const auto longFormat = text + "{}" + text + "{}{}" + text;
  for (const char* format :
       {"", "no field", "{}", "{} {} {}", "{}{}{}", "a{}b{}c{}d", "{{}} {} }}", "{2} {1} {0}",
        "{} {:>12} {}", "{0} {}", "{} {} {} {}", "{", "}", "{} {", "{} }", longFormat.c_str()}) {
    const auto ours = [&](const auto&... args) { return message(format, args...); };
    const auto theirs = [&](const auto&... args) {
      return fmt::format(fmt::runtime(format), args...);
    };
    const auto expectSame = [&](const auto&... args) {
      EXPECT_EQ(textOf(ours, args...), textOf(theirs, args...)) << format;
    };
    expectSame(0, 7U, Tarvo::String("short"));
    expectSame(std::numeric_limits<int>::min(), std::numeric_limits<std::int64_t>::min(), text);
    expectSame(~std::uint64_t{}, ~0U, std::string_view());
    expectSame(static_cast<short>(-12), zero, text);
    expectSame(true, 'c', 1.5);
  }
}

}  // namespace
