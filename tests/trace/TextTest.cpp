#include <gtest/gtest.h>

#include <iomanip>
#include <limits>
#include <sstream>

#include "Tarvo/Assert.h"
#include "Tarvo/DisplayPointer.h"
#include "Tarvo/Platform.h"

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
  EXPECT_EQ(message("{:>4}|{}", 5, Tarvo::String("s")), "   5|s");
  EXPECT_EQ(
      message("{} {}", Tarvo::Platform::eventPriorityDefault, Tarvo::Platform::EventPriority(7)),
      "eventPriorityDefault Invalid EventPriority=7");
}

/// What the formatting library makes of it, errors included.
template <typename... Args>
Tarvo::String formatted(fmt::string_view format, const Args&... args) {
  try {
    return fmt::vformat(format, fmt::make_format_args(args...));
  } catch (const fmt::format_error& e) {
    return e.what();
  }
}

template <typename... Args>
void expectTheLibrarysText(fmt::string_view format, const Args&... args) {
  Tarvo::String text;
  try {
    text = message(format, args...);
  } catch (const fmt::format_error& e) {
    text = e.what();
  }
  EXPECT_EQ(text, formatted(format, args...)) << std::string_view(format.data(), format.size());
}

// Plain messages do not pass through the formatting library; nobody may notice.
TEST(TextTest, EveryMessageReadsAsTheFormattingLibraryWritesIt) {
  const Tarvo::String shortText = "short";
  const Tarvo::String longText(700, 'l');  // longer than the storage on the stack
  const auto all = [&](fmt::string_view format) {
    expectTheLibrarysText(format, 0, 7U, shortText);
    expectTheLibrarysText(format, std::numeric_limits<int>::min(),
                          std::numeric_limits<std::int64_t>::min(), longText);
    expectTheLibrarysText(format, std::numeric_limits<std::uint64_t>::max(),
                          std::numeric_limits<std::uint32_t>::max(), std::string_view());
    expectTheLibrarysText(format, static_cast<short>(-12), std::string_view("v\0w", 3), longText);
    expectTheLibrarysText(format, true, 'c', 1.5);
    expectTheLibrarysText(format, longText, longText, -1);
  };
  for (const char* format :
       {"", "no field", "{}", "{} {} {}", "{}{}{}", "a{}b{}c{}d", "{{}} {} }}", "{2} {1} {0}",
        "{} {:>12} {}", "{0} {}", "{} {} {} {}", "{", "}", "{} {", "{} }", "a } b {}"}) {
    all(format);
  }
  all(longText + "{}" + longText + "{}{}" + longText);
}

TEST(TextTest, APointerLeavesTheStreamAsItWas) {
  std::ostringstream out;
  out << std::left << std::setfill('*') << std::setw(20) << std::oct
      << DisplayPointer(reinterpret_cast<void*>(0x1f)) << 8 << ' ' << DisplayPointer(nullptr);
  EXPECT_EQ(out.str(),
            "0x0000001f10******************"
            " NULL");
}

}  // namespace
