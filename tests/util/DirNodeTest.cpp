#include "Tarvo/DirNode.h"

#include "Tarvo/Random.h"
#include "support/Test.h"

namespace {

bool typesAreKnown = true;  // some file systems leave them to those who want to know

}  // namespace

/// Stands before the C library's for the library too.
extern "C" [[gnu::visibility("default")]] dirent* readdir(DIR* folder) {
  static const auto next = reinterpret_cast<dirent* (*)(DIR*)>(dlsym(RTLD_NEXT, "readdir"));
  dirent* const entry = next(folder);
  if (entry != nullptr && !typesAreKnown) entry->d_type = DT_UNKNOWN;
  return entry;
}

namespace {

using namespace testsupport;

struct DirNodeTest : TempFolder {
  std::shared_ptr<Tarvo::Platform::DebugHandler> trace = getDebugHandler("Dirs");
  Tarvo::DirNode node{*trace};
};

TEST_F(DirNodeTest, FindsFilesAndLinksByTheEndOfTheirNames) {
  std::filesystem::create_directories(folder + "/c.json");
  for (const char* name : {"/.json", "/json", "/\xff\xfe.json"})
    std::ofstream(folder + name) << "x";
  std::filesystem::create_symlink("nowhere", folder + "/d.json");
  std::filesystem::create_symlink("c.json", folder + "/e.json");
  node.pathIs(folder);
  for (const bool known : {true, false}) {
    typesAreKnown = known;
    EXPECT_THAT(node.findFiles(".json"),
                testing::UnorderedElementsAre(".json", "\xff\xfe.json", "d.json", "e.json"));
  }
  EXPECT_EQ(node.readEntry(), nullptr);
  node.rewind();
  EXPECT_NE(node.readEntry(), nullptr);
  node.pathIs(folder + "/missing");
  EXPECT_THAT(errorOf([&] { node.findFiles(".json"); }),
              HasSubstr("cannot find .json files in " + folder + "/missing because the directory"));
  EXPECT_THAT(errorOf([&] { node.rewind(); }), HasSubstr("cannot rewind " + folder));
  EXPECT_EQ(node.readEntry(), nullptr);
}

TEST_F(DirNodeTest, AnErrorIsNotTheEndAndAFailedCloseIsTold) {
  trace->enabledIs(1, true);
  const auto parent = std::make_shared<Tarvo::DirNode>(*trace, "/", nullptr);
  Tarvo::DirNode first(*trace, folder, parent);
  for (const bool again : {true, false}) {
    std::optional<Tarvo::DirNode> copy(first);
    EXPECT_THAT(captured([&] {
                  const int next = dup(0);
                  close(next);
                  copy->openDir();
                  close(next);  // behind its back
                  EXPECT_THAT(errorOf([&] { copy->readEntry(); }), HasSubstr("failed to read"));
                  again ? copy->openDir() : copy.reset();
                }),
                HasSubstr("failed to close " + folder));
  }
  EXPECT_EQ(Tarvo::DirNode(std::move(first)).parent(), parent);
  node.pathIs(folder);  // and is closed at its end
}

TEST(RandomTest, ASeedFromTheEnvironmentReplaysBothStreams) {
  const auto drawn = [](const char* seed) {
    return runForked([seed] {
      seed != nullptr ? setenv("ZQTEST_RANDSEED", seed, 1) : unsetenv("ZQTEST_RANDSEED");
      Tarvo::Random::setSeed();
      std::printf("%u %lu", Tarvo::Random::getSeed(), Tarvo::Random::rand64());
      for (const char c : Tarvo::Random::randomString(300)) std::printf(",%d", c);
      return 0;
    });
  };
  const auto child = drawn("1234");
  EXPECT_EQ(child.out, drawn("1234").out);
  EXPECT_THAT(child.out, StartsWith("1234 " + std::to_string(std::mt19937_64(1234)()) + ","));
  EXPECT_THAT(child.err, StartsWith("Tarvo::Random::setSeed(), setting seed to 1234\n"));
  EXPECT_NE(drawn(nullptr).out, drawn(nullptr).out) << "two moments";
}

}  // namespace
