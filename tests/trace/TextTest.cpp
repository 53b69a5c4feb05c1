#include <gtest/gtest.h>

#include <iomanip>
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

TEST(TextTest, APointerLeavesTheStreamAsItWas) {
  std::ostringstream out;
  out << std::left << std::setfill('*') << std::setw(20) << std::oct
      << DisplayPointer(reinterpret_cast<void*>(0x1f)) << 8 << ' ' << DisplayPointer(nullptr);
  EXPECT_EQ(out.str(),
            "0x0000001f10******************"
            " NULL");
}

}  // namespace
