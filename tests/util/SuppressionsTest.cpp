#include "support/Test.h"

namespace {

using testing::HasSubstr;
using testing::Not;

TEST(SuppressionsTest, ValgrindSeesNothingOfTheLibraryAndAllOfTheProgram) {
  const auto losing = testsupport::runProgram(
      "valgrind --leak-check=full --show-leak-kinds=all --errors-for-leak-kinds=all "
      "--suppressions=" SUPPRESSIONS "valgrind.supp " NEVER_FREED " lose");
  EXPECT_THAT(losing.err, HasSubstr(" 777 bytes in 1 blocks are definitely lost"));
  EXPECT_THAT(losing.err, HasSubstr(" 555 bytes in 1 blocks are still reachable"));
  EXPECT_THAT(losing.err, HasSubstr("ERROR SUMMARY: 2 errors from 2 contexts"));
}

TEST(SuppressionsTest, LeakSanitizerSeesNothingOfTheLibraryAndAllOfTheProgram) {
  const std::string options =
      "LSAN_OPTIONS=fast_unwind_on_malloc=0:suppressions=" SUPPRESSIONS "lsan.supp:use_globals=";
  const auto strict = testsupport::runProgram(options + "0 " NEVER_FREED "leak");
  EXPECT_THAT(strict.err, HasSubstr("Suppressions used"));
  EXPECT_THAT(strict.err, Not(HasSubstr("libTarvo.so")));
  const auto losing = testsupport::runProgram(options + "1 " NEVER_FREED "leak lose");
  EXPECT_THAT(losing.err, HasSubstr("Direct leak of 777 byte(s)"));
  EXPECT_THAT(losing.err, Not(HasSubstr("Direct leak of 555 byte(s)")));
}

}  // namespace
