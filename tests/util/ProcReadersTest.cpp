#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/sched.h>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include <thread>

#include "Tarvo/Mappings.h"
#include "Tarvo/Thread.h"
#include "Tarvo/Util.h"
#include "support/ChildProcess.h"
#include "support/Failure.h"

namespace {

using namespace std::chrono_literals;
using Tarvo::MappingKind;
using Tarvo::Mappings;
using Tarvo::Process;
using testing::HasSubstr;
using testsupport::errorOf;
using testsupport::WaitingChild;

std::chrono::nanoseconds bootTime() {
  timespec now;
  clock_gettime(CLOCK_BOOTTIME, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

TEST(ProcessTest, ReadsTitlesAndArgumentsOfAnyBytesAndStartTimes) {
  const auto before = bootTime();
  const auto* stop = "kill -STOP $$; :";
  WaitingChild child(
      [&] { execl("/bin/sh", "sh", "-c", stop, "a b", "", "\xff\n)", "", nullptr); });
  const auto process = Process::of(child.pid()).value();
  EXPECT_THAT(process.commandLine(),
              testing::Optional(testing::ElementsAre("sh", "-c", stop, "a b", "", "\xff\n)", "")));
  EXPECT_THAT(process.title(), testing::Optional(testing::HasSubstr("sh")));
  EXPECT_GE(process.startTime(), before - 10ms) << "the kernel counts in steps of 10 ms";
  EXPECT_LE(process.startTime(), bootTime());
  const auto age = std::chrono::system_clock::now() - process.startWallTime();
  EXPECT_LT(abs(age - (bootTime() - process.startTime())), 5s);
  EXPECT_FALSE(process.ended());
  child.kill();
  EXPECT_TRUE(process.ended()) << "although nobody has waited for it yet";
  EXPECT_EQ(process.commandLine(), std::nullopt);
  EXPECT_FALSE(Mappings::of(process));
  child.end();
  EXPECT_TRUE(process.ended());
  EXPECT_EQ(process.title(), std::nullopt);
  for (const pid_t none : {process.pid(), 0, -1}) EXPECT_FALSE(Process::of(none));
}

TEST(ProcessTest, SetsItsTitleFromAnyThreadAndIsNoThread) {
  const std::string odd = "a) R 1 (b\n c\n";
  const WaitingChild first([&] { Process::titleIs(odd); });
  const WaitingChild other(
      [&] { std::thread([] { Process::titleIs("0123456789abcdefgh"); }).join(); });
  const auto process = Process::of(first.pid()).value();
  EXPECT_EQ(process.title(), odd);
  EXPECT_LT(bootTime() - process.startTime(), 1min) << "read behind the title";
  EXPECT_EQ(Process::of(other.pid()).value().title(), "0123456789abcde");
  std::thread([] {
    EXPECT_FALSE(Process::of(Tarvo::gettid()));
    EXPECT_EQ(Process::self().pid(), getpid());
  }).join();
}

TEST(ProcessTest, TellsALaterProcessOfTheSameNumberApart) {
  WaitingChild child([] {});
  const auto process = Process::of(child.pid()).value();
  pid_t number = child.pid();
  child.end();
  while (bootTime() < process.startTime() + 20ms) std::this_thread::yield();
  clone_args same{};
  same.exit_signal = SIGCHLD;
  same.set_tid = reinterpret_cast<std::uintptr_t>(&number);
  same.set_tid_size = 1;
  const auto later = static_cast<pid_t>(syscall(SYS_clone3, &same, sizeof same));
  if (later == 0) {
    for (;;) pause();
  }
  if (later < 0) GTEST_SKIP() << "choosing a process number: " << std::strerror(errno);
  EXPECT_TRUE(process.ended());
  EXPECT_EQ(process.title(), std::nullopt);
  EXPECT_FALSE(Process::of(number).value().ended());
  kill(later, SIGKILL);
  waitpid(later, nullptr, 0);
}

TEST(ProcessTest, AKernelThreadHasNoArgumentsAndNoMappings) {
  const auto thread = Process::of(2);
  if (!thread || thread->title() != "kthreadd") GTEST_SKIP() << "no kernel threads to be seen";
  EXPECT_THAT(thread->commandLine(), testing::Optional(testing::IsEmpty()));
  EXPECT_EQ(Mappings::of(*thread).value().size(), 0U);
}

TEST(MappingsTest, ParsesWhatTheKernelWritesAndRefusesTheRest) {
  const auto map = Mappings::parse(
      "1000-3000 r-xp 00002000 fe:01 42                 /a b\\012c (deleted)\n"
      "3000-4000 rw-s 00000000 00:00 0 \n"
      "5000-6000 ---p 00000000 00:00 0                  [anon:x y]\n"
      "ffffffffff600000-ffffffffff601000 --xp 00000000 00:00 0  [vsyscall]\n");
  ASSERT_EQ(map.size(), 4U);
  const auto copy = map;
  const auto* file = copy.find(0x1000);
  EXPECT_EQ(file->path, "/a b\nc");
  EXPECT_TRUE(file->deleted && file->readable && file->executable);
  EXPECT_FALSE(file->writable || file->shared);
  EXPECT_EQ(file->device, makedev(0xfe, 1));
  EXPECT_EQ(file->inode, 42U);
  EXPECT_EQ(file->offset, 0x2000U);
  EXPECT_EQ(copy.find(0x2fff), file);
  EXPECT_TRUE(copy.find(0x3000)->shared && copy.find(0x3fff)->kind == MappingKind::anonymous);
  EXPECT_EQ(copy.find(0x5000)->kind, MappingKind::other);
  EXPECT_EQ(copy.find(0xffffffffff600fff)->path, "[vsyscall]");
  for (const std::uintptr_t gap : {0x0UL, 0xfffUL, 0x4000UL, 0x6000UL, ~0UL}) {
    EXPECT_EQ(copy.find(gap), nullptr) << gap;
  }
  const std::string good = "1000-2000 r-xp 0 fe:01 42";
  for (std::size_t cut = 0; cut + 2 < good.size(); ++cut) {  // the last digit may well be missing
    EXPECT_THAT(errorOf([&] { Mappings::parse(good.substr(0, cut) + "\n"); }),
                HasSubstr("the mapping \"" + good.substr(0, cut) + "\""))
        << cut;
  }
  EXPECT_NE(errorOf([&] { Mappings::parse(good + "\n" + "0-1 r-xp 0 0:0 0"); }), "nothing failed");
}

TEST(MappingsTest, ShowsTheProcessAsItIs) {
  const std::string path = testing::TempDir() + "map " + std::to_string(getpid()) + "\n(deleted)";
  Tarvo::Util::fileWrite(path, std::string(8192, 'x'), 0600);
  const int fd = open(path.c_str(), O_RDONLY);
  auto* memory = static_cast<char*>(mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 4096));
  struct stat status;
  fstat(fd, &status);
  close(fd);
  std::filesystem::remove(path);
  const int local = 0;
  const auto* heap = static_cast<const char*>(sbrk(4096));
  const auto map = Mappings::self();
  const auto* mapping = map.find(memory + 4095);
  EXPECT_EQ(mapping->begin, reinterpret_cast<std::uintptr_t>(memory));
  EXPECT_EQ(mapping->path, path);
  EXPECT_EQ(mapping->offset, 4096U);
  EXPECT_EQ(mapping->inode, status.st_ino);
  EXPECT_TRUE(mapping->deleted && mapping->shared && mapping->kind == MappingKind::file);
  EXPECT_EQ(map.find(&local)->kind, MappingKind::stack);
  EXPECT_EQ(map.find(heap)->kind, MappingKind::heap);
  EXPECT_EQ(map.find(getauxval(AT_SYSINFO_EHDR))->kind, MappingKind::vdso);
  const auto* code = map.find(reinterpret_cast<std::uintptr_t>(&bootTime));
  EXPECT_TRUE(code->executable && code->path == std::filesystem::read_symlink("/proc/self/exe"));
  munmap(memory, 4096);
  const auto child = testsupport::runForked([] {
    if (geteuid() == 0 && seteuid(65534) != 0) return 2;
    const auto text = errorOf<Tarvo::NoPermissionException>([] { Mappings::of(*Process::of(1)); });
    return text.find("/proc/1/maps: Permission denied") != std::string::npos ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode, 0);
}

}  // namespace
