#include <sys/auxv.h>
#include <sys/sysmacros.h>

#include "Tarvo/Mappings.h"
#include "Tarvo/Thread.h"
#include "support/Test.h"

namespace {

using namespace std::chrono_literals;
using namespace testsupport;
using Tarvo::MappingKind;
using Tarvo::Mappings;
using Tarvo::Process;

std::chrono::nanoseconds bootTime() {
  timespec now;
  clock_gettime(CLOCK_BOOTTIME, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

TEST(ProcessTest, ReadsArgumentsOfAnyBytesAndStartTimes) {
  const auto before = bootTime();
  const auto* stop = "kill -STOP $$; :";
  WaitingChild child(
      [&] { execl("/bin/sh", "sh", "-c", stop, "a b", "", "\xff\n)", "", nullptr); });
  const auto process = Process::of(child.pid()).value();
  EXPECT_THAT(process.commandLine(),
              Optional(ElementsAre("sh", "-c", stop, "a b", "", "\xff\n)", "")));
  EXPECT_GE(process.startTime(), before - 10ms) << "the kernel counts in steps of 10 ms";
  EXPECT_LE(process.startTime(), bootTime());
  EXPECT_FALSE(process.ended());
  child.kill();
  EXPECT_TRUE(process.ended()) << "although nobody has waited for it yet";
  EXPECT_FALSE(process.commandLine() || Mappings::of(process));
  child.end();
  EXPECT_FALSE(!process.ended() || process.title());
  for (const pid_t none : {process.pid(), 0, -1}) EXPECT_FALSE(Process::of(none));
}

TEST(ProcessTest, SetsItsTitleFromAnyThreadAndIsNoThread) {
  const std::string odd = "a) R 1 (b\n c\n";
  const WaitingChild first([&] { Process::titleIs(odd); });
  const WaitingChild other(
      [&] { std::jthread([] { Process::titleIs("0123456789abcdefgh"); }).join(); });
  const auto process = Process::of(first.pid()).value();
  EXPECT_EQ(process.title(), odd);
  EXPECT_LT(bootTime() - process.startTime(), 1min) << "read behind the title";
  EXPECT_EQ(Process::of(other.pid()).value().title(), "0123456789abcde");
  std::jthread([] { EXPECT_FALSE(Process::of(Tarvo::gettid())); }).join();
}

TEST(MappingsTest, ParsesWhatTheKernelWritesAndRefusesTheRest) {
  const auto map = Mappings::parse(
      "1000-3000 r-xp 00002000 fe:01 42                 /a b\\012c (deleted)\n"
      "3000-4000 rw-s 00000000 00:00 0 \n"
      "5000-6000 ---p 00000000 00:00 0                  [anon:x y]\n");
  const auto* file = map.find(0x2fff);
  EXPECT_EQ(file, map.find(0x1000));
  EXPECT_EQ(file->path, "/a b\nc");
  EXPECT_TRUE(file->deleted && file->readable && file->executable);
  EXPECT_FALSE(file->writable || file->shared);
  EXPECT_EQ(std::tuple(file->device, file->inode, file->offset),
            std::tuple(makedev(0xfe, 1), 42U, 0x2000U));
  EXPECT_TRUE(map.find(0x3000)->shared && map.find(0x3fff)->kind == MappingKind::anonymous);
  EXPECT_EQ(map.find(0x5000)->kind, MappingKind::other);
  for (const std::uintptr_t gap : {0xfffUL, 0x4000UL, 0x6000UL}) EXPECT_FALSE(map.find(gap));
  for (const String line : {"1000-2000 r-xp 0 fe:01 ", "1000-2000 r-xp 0 fe 01 42"})
    EXPECT_THAT(errorOf([&] { Mappings::parse(line + "\n"); }),
                HasSubstr("the mapping \"" + line + "\""));
}

TEST(MappingsTest, ShowTheProcessAsItIs) {
  const auto map = Mappings::self();
  const auto* code = map.find(reinterpret_cast<const void*>(&bootTime));
  EXPECT_EQ(code->path, std::filesystem::read_symlink("/proc/self/exe"));
  EXPECT_TRUE(code->kind == MappingKind::file && code->executable);
  EXPECT_EQ(map.find(&code)->kind, MappingKind::stack);
  EXPECT_EQ(map.find(getauxval(AT_SYSINFO_EHDR))->kind, MappingKind::vdso);
}

}  // namespace
