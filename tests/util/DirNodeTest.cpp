#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>

#include "Tarvo/DirNode.h"
#include "Tarvo/Exception.h"
#include "Tarvo/Random.h"
#include "support/ChildProcess.h"

namespace {

using Tarvo::DirNode;
using testing::HasSubstr;
using testing::UnorderedElementsAre;
using testsupport::runForked;

TEST(DirNodeTest, FindsFilesAndLinksByTheEndOfTheirNames) {
  const std::filesystem::path path = testing::TempDir() + "tree." + std::to_string(getpid());
  std::filesystem::create_directories(path / "c.json");
  for (const char* name : {"a.json", "b.txt", ".json", "json", "\xff\xfe.json"}) {
    std::ofstream(path / name) << "x";
  }
  std::filesystem::create_symlink("nowhere", path / "d.json");
  std::filesystem::create_directory_symlink("c.json", path / "e.json");
  const auto trace = Tarvo::Platform::getDebugHandler("Dirs");
  {
    DirNode node(*trace);
    node.pathIs(path);
    EXPECT_THAT(node.findFiles(".json"),
                UnorderedElementsAre("a.json", ".json", "\xff\xfe.json", "d.json", "e.json"));
    EXPECT_EQ(node.readEntry(), nullptr);
    node.rewind();
    EXPECT_NE(node.readEntry(), nullptr);
    EXPECT_EQ(node.findFiles("").size(), 7U);
    node.pathIs(path / "c.json");
    EXPECT_TRUE(node.findFiles("").empty());
    node.pathIs(path / "missing");
    EXPECT_EQ(node.readEntry(), nullptr);
    EXPECT_THAT([&] { node.findFiles(".json"); },
                testing::Throws<Tarvo::RuntimeException>(
                    testing::Property(&Tarvo::RuntimeException::msg,
                                      HasSubstr("cannot find .json files in " + path.string() +
                                                "/missing because the directory is not open"))));
    EXPECT_THROW(node.rewind(), Tarvo::RuntimeException);
  }
  std::filesystem::remove_all(path);
}

TEST(DirNodeTest, ClosesWhatItOpensAndSaysWhatItCannotRead) {
  const auto trace = Tarvo::Platform::getDebugHandler("Dirs");
  const int nothing = open("/dev/null", O_RDONLY);
  const int next = dup(nothing);
  for (int round = 0; round < 2; ++round) {
    close(next);
    DirNode node(*trace);
    node.pathIs("/");
    node.pathIs("/proc");  // the number is free again
    ASSERT_EQ(dup2(nothing, next), next) << "now the stream reads a file";
    EXPECT_THAT([&] { node.readEntry(); },
                testing::Throws<Tarvo::RuntimeException>(
                    testing::Property(&Tarvo::RuntimeException::msg,
                                      HasSubstr("failed to read /proc errno: Not a directory"))));
  }
  EXPECT_EQ(fcntl(next, F_GETFD), -1);
  close(nothing);
}

TEST(RandomTest, ASeedFromTheEnvironmentReplaysBothStreams) {
  const auto drawn = [](const char* seed) {
    return runForked([seed] {
      std::printf("%d", Tarvo::Random::rand64() == std::mt19937_64()());
      seed != nullptr ? setenv("ZQTEST_RANDSEED", seed, 1) : unsetenv("ZQTEST_RANDSEED");
      for (int i = 0; i < 2; ++i) {  // the second time starts again, from the same
        Tarvo::Random::setSeed();
        std::printf(" %u %lu", Tarvo::Random::getSeed(), Tarvo::Random::rand64());
        for (const char c : Tarvo::Random::randomString(300)) std::printf(",%d", c);
        setenv("ZQTEST_RANDSEED", "5", 1);
      }
      return std::fflush(stdout);
    });
  };
  const auto child = drawn("1234");
  EXPECT_EQ(child.out, drawn("1234").out);
  EXPECT_THAT(child.out, HasSubstr("1 1234 " + std::to_string(std::mt19937_64(1234)()) + ","));
  const auto half = child.out.size() / 2;
  EXPECT_EQ(child.out.substr(1, half), child.out.substr(half + 1)) << "one character of header";
  EXPECT_THAT(child.out, HasSubstr(",0,")) << "a zero byte";
  EXPECT_EQ(child.err,
            "Tarvo::Random::setSeed(), setting seed to 1234\n"
            "Tarvo::Random::setSeed(), setting seed to 1234\n");
  EXPECT_NE(drawn(nullptr).out, drawn(nullptr).out) << "two moments";
  EXPECT_THAT(drawn("").err, HasSubstr("setting seed to 0\n"));
}

}  // namespace
