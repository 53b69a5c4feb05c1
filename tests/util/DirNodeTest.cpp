#include "Tarvo/DirNode.h"

#include <fstream>
#include <random>

#include "Tarvo/Random.h"
#include "support/Test.h"

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
  EXPECT_THAT(node.findFiles(".json"),
              testing::UnorderedElementsAre(".json", "\xff\xfe.json", "d.json", "e.json"));
  EXPECT_EQ(node.readEntry(), nullptr);
  node.pathIs(folder + "/missing");
  EXPECT_THAT(errorOf([&] { node.findFiles(".json"); }),
              HasSubstr("cannot find .json files in " + folder + "/missing because the directory"));
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
