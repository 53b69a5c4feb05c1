#include <gtest/gtest.h>

#include "Tarvo/Introspection.h"
#include "Tarvo/Platform.h"

namespace {

TEST(ValuePrinterTest, UsesThePrinterOfItsTypeOrTheBytes) {
  const auto printer = Tarvo::Platform::getValuePrinter("Pair", 4);
  const unsigned char value[] = {0x00, 0x0a, 0xff, 0x10};
  EXPECT_EQ(printer->toString(value), "000aff10");
  Tarvo::introspectionPrinterIs("Pair", [](const void* v) {
    return "pair " + std::to_string(static_cast<const unsigned char*>(v)[1]);
  });
  EXPECT_EQ(printer->toString(value), "pair 10");
  Tarvo::introspectionPrinterIs("Pair", nullptr);
  EXPECT_EQ(printer->toString(value), "000aff10");
}

}  // namespace
