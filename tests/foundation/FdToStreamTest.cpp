#include "Tarvo/FdToStream.h"

#include "support/Test.h"

namespace {

/// Called instead of waiting, for what a reader does meanwhile; whether there is room then.
std::function<bool()> meanwhile;

}  // namespace

/// Stands before the C library's for the library too.
extern "C" [[gnu::visibility("default")]] int poll(pollfd*, nfds_t, int) { return meanwhile(); }

namespace {

using namespace testsupport;

TEST(FdToStreamTest, WaitsForASlowReaderAndSurvivesOneThatIsGone) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
  const String sent(1'000'000, 'x');
  ssize_t got = 0;
  meanwhile = [&] {
    char bytes[50'000];
    const auto count = read(ends[0], bytes, sizeof bytes);
    got += std::max(count, ssize_t{0});
    return count > 0;
  };
  Tarvo::FdToStream out(ends[1]);
  EXPECT_TRUE(out << sent << std::flush);
  while (meanwhile()) continue;
  EXPECT_EQ(got, std::ssize(sent));
  meanwhile = [] { return false; };
  EXPECT_FALSE(out << sent) << "nobody reads";
  out.clear();
  close(ends[0]);
  EXPECT_FALSE(out << sent);
  close(ends[1]);
}

}  // namespace
