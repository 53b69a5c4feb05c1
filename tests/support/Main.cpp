#include <gtest/gtest.h>

#include "Tarvo/Exception.h"

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  Tarvo::throwOnAssertFailIs(true);
  return RUN_ALL_TESTS();
}
