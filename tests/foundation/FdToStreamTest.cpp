#include "Tarvo/FdToStream.h"

#include "support/Test.h"

namespace {

/// Called instead of waiting, for what a reader does meanwhile; whether there is room then.
std::function<bool()> meanwhile;

}  // namespace

/// Stands before the C library's for the library too.
extern "C" [[gnu::visibility("default")]] int poll(pollfd*, nfds_t, int) {
  return meanwhile() ? 1 : 0;
}

namespace {

using namespace testsupport;

TEST(FdToStreamTest, WaitsForASlowReaderAndSurvivesOneThatIsGone) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
  const String sent(1'000'000, 'x');
  String got;
  meanwhile = [&] {
    char bytes[50'000];
    const auto count = read(ends[0], bytes, sizeof bytes);
    if (count > 0) got.append(bytes, static_cast<std::size_t>(count));
    return count > 0;
  };
  Tarvo::FdToStream out(ends[1]);
  out << sent << std::flush;
  while (meanwhile()) continue;
  EXPECT_TRUE(out && got == sent);
  meanwhile = [] { return false; };
  out << sent;
  EXPECT_FALSE(out) << "nobody reads";
  out.clear();
  close(ends[0]);
  for (const char c : sent.substr(0, 5000)) out.put(c);
  EXPECT_FALSE(out);
  close(ends[1]);
}

}  // namespace
