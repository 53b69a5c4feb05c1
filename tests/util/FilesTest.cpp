#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <filesystem>
#include <thread>

#include "Tarvo/Util.h"
#include "support/Failure.h"

namespace {

/// What the system calls below do while a test has them in hand.
struct {
  bool armed = false;
  std::size_t refused = 0;  // which call fails
  std::size_t portion = 0;  // of a read or write, every other one of which is interrupted
  bool namesCanSwap = true;
  std::vector<std::string> calls;
} kernel;

/// Notes the call; true when it is to fail with EIO.
bool refuses(const char* call) {
  if (!kernel.armed) return false;
  kernel.calls.emplace_back(call);
  errno = EIO;
  return kernel.calls.size() - 1 == kernel.refused;
}

long transfer(long call, int fd, std::uintptr_t bytes, std::size_t count) {
  if (kernel.portion > 0) {
    static bool interrupted = false;
    interrupted = !interrupted;
    errno = EINTR;
    if (interrupted) return -1;
    count = std::min(count, kernel.portion);
  }
  return syscall(call, fd, bytes, count);
}

}  // namespace

// They stand before the C library's for the library too.
#define STANDS_BEFORE extern "C" [[gnu::visibility("default")]]
STANDS_BEFORE ssize_t read(int fd, void* to, std::size_t count) {
  return transfer(SYS_read, fd, reinterpret_cast<std::uintptr_t>(to), count);
}
STANDS_BEFORE ssize_t write(int fd, const void* from, std::size_t count) {
  if (refuses("write")) return -1;
  return transfer(SYS_write, fd, reinterpret_cast<std::uintptr_t>(from), count);
}
STANDS_BEFORE int openat(int folder, const char* path, int flags, ...) {
  va_list more;
  va_start(more, flags);
  const mode_t mode = va_arg(more, mode_t);
  va_end(more);
  if (refuses("openat")) return -1;
  return static_cast<int>(syscall(SYS_openat, folder, path, flags, mode));
}
STANDS_BEFORE int fsync(int fd) {
  return refuses("fsync") ? -1 : static_cast<int>(syscall(SYS_fsync, fd));
}
STANDS_BEFORE int close(int fd) {
  const bool fails = refuses("close");
  const auto result = static_cast<int>(syscall(SYS_close, fd));
  if (fails) errno = EIO;
  return fails ? -1 : result;
}
STANDS_BEFORE int renameat2(int from, const char* name, int to, const char* other,
                            unsigned flags) noexcept {
  if (refuses("swap")) return -1;
  if (kernel.namesCanSwap) {
    return static_cast<int>(syscall(SYS_renameat2, from, name, to, other, flags));
  }
  errno = EINVAL;
  return -1;
}
STANDS_BEFORE int renameat(int from, const char* name, int to, const char* other) noexcept {
  if (refuses("rename")) return -1;
  return static_cast<int>(syscall(SYS_renameat2, from, name, to, other, 0));
}
STANDS_BEFORE int unlinkat(int folder, const char* name, int flags) noexcept {
  return refuses("unlink") ? -1 : static_cast<int>(syscall(SYS_unlinkat, folder, name, flags));
}

namespace {

using namespace Tarvo::Util;
using testing::HasSubstr;
using testsupport::errorOf;

struct FilesTest : testing::Test {
  FilesTest() { mkpath(folder, 0777); }
  ~FilesTest() override {
    kernel = {};
    std::filesystem::remove_all(folder);
  }
  /// Writes with each system call failing in turn; the calls of the round in which none failed.
  std::vector<std::string> failEach(const std::optional<std::string>& old) {
    for (std::size_t refused = 0;; ++refused) {
      std::filesystem::remove(path);
      if (old) fileWrite(path, *old);
      std::error_code error;
      kernel.refused = refused;
      kernel.calls.clear();
      kernel.armed = true;
      fileWrite(path, "new", 0600, error);
      kernel.armed = false;
      std::error_code missing;
      const auto found = fileRead(path, 99, missing);
      const bool all = refused >= kernel.calls.size();
      const auto failed = all ? "nothing" : kernel.calls[refused];
      SCOPED_TRACE(failed + " " + std::to_string(refused));
      if (error &&
          !(failed == "fsync" && !kernel.namesCanSwap && kernel.calls[refused - 1] == "rename")) {
        EXPECT_EQ(error, std::errc::io_error);
        EXPECT_EQ(found, old.value_or(""));
        EXPECT_EQ(static_cast<bool>(missing), !old);
      } else {
        EXPECT_EQ(found, "new");
      }
      // The last close is that of the folder, of which nothing depends.
      EXPECT_EQ(static_cast<bool>(error), !all && refused + 1 < kernel.calls.size());
      const std::filesystem::directory_iterator files(folder);
      EXPECT_EQ(std::distance(begin(files), end(files)), old || !missing ? 1 : 0);
      if (all || HasFailure()) return kernel.calls;
    }
  }
  std::string folder = testing::TempDir() + "files." + std::to_string(getpid());
  std::string path = folder + "/file";
};

TEST_F(FilesTest, KeepsTheOldFileWhateverSystemCallFails) {
  using testing::ElementsAre;
  EXPECT_THAT(failEach("old"),
              ElementsAre("openat", "write", "fsync", "close", "swap", "fsync", "unlink", "close"));
  EXPECT_THAT(failEach({}),
              ElementsAre("openat", "write", "fsync", "close", "rename", "fsync", "close"));
  kernel.namesCanSwap = false;
  EXPECT_THAT(failEach("old"),
              ElementsAre("openat", "write", "fsync", "close", "swap", "rename", "fsync", "close"));
}

TEST_F(FilesTest, WritesAllWithItsModeAndReplacesOnlyFilesAndLinks) {
  const std::string bytes("zero \0 and all\n", 15);
  const mode_t old = umask(027);
  kernel.portion = 2;
  fileWrite(path, bytes, 0666);
  EXPECT_EQ(fileRead(path), bytes);
  kernel.portion = 0;
  umask(old);
  EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0640));
  std::filesystem::create_symlink(path, folder + "/link");
  fileWrite(folder + "/link", "");
  EXPECT_EQ(fileSize(folder + "/link"), 0U);
  EXPECT_EQ(fileSize(path), bytes.size()) << "the link was replaced, not followed";
  ASSERT_EQ(mkfifo((folder + "/pipe").c_str(), 0600), 0);
  for (const auto& [name, reason] : std::map<std::string, std::string>{
           {folder + "/pipe", ": Operation not supported"},
           {folder, ": Is a directory"},
           {folder + "/", ": No such file or directory"},
           {"", "write : No such file or directory"},
           {folder + "/none/file", ": No such file or directory"},
           {"/proc/nothing", ": "},
           {path + std::string("\0x", 2), "file\\0x: Invalid argument"}}) {
    EXPECT_THAT(errorOf([&, &where = name] { fileWrite(where, "x"); }), HasSubstr(reason)) << name;
  }
  EXPECT_EQ(fileRead(path), bytes);
  const std::filesystem::directory_iterator files(folder);
  EXPECT_EQ(std::distance(begin(files), end(files)), 3) << "no temporary is left";
}

TEST_F(FilesTest, AReaderSeesOneFileOrTheOther) {
  fileWrite(path, std::string(5000, 'a'));
  std::atomic<bool> done = false;
  std::thread writer([&] {
    for (int i = 0; i < 40; ++i) fileWrite(path, std::string(i % 2 == 0 ? 9000 : 5000, 'a'));
    done = true;
  });
  do {
    const auto size = fileRead(path).size();
    EXPECT_TRUE(size == 9000 || size == 5000) << size;
  } while (!done);
  writer.join();
}

TEST_F(FilesTest, ReadsToTheEndWithinTheLimit) {
  EXPECT_EQ(fileSize("/proc/self/maps"), 0U);
  EXPECT_GT(fileRead("/proc/self/maps").size(), 500U);
  const std::string large(100'000, 'x');
  fileWrite(path, large);
  EXPECT_EQ(fileRead(path, large.size()), large);
  EXPECT_THAT(errorOf([&] { fileRead(path, large.size() - 1); }),
              HasSubstr("cannot read " + path + ": File too large"));
  std::error_code error;
  EXPECT_EQ(fileRead("/dev/zero", 70'000, error), "");
  EXPECT_EQ(error, std::errc::file_too_large);
  EXPECT_EQ(fileRead("/proc/self/stat", 10, error), "");
  EXPECT_EQ(error, std::errc::file_too_large);
  EXPECT_EQ(fileRead("/dev/null", 0, error), "");
  EXPECT_FALSE(error);
  EXPECT_THAT(errorOf([&] { fileRead(folder); }), HasSubstr(folder + ": Is a directory"));
  EXPECT_THAT(errorOf([&] { fileSize(path + "/x"); }),
              HasSubstr("cannot get the size of " + path + "/x: Not a directory"));
  EXPECT_THAT(errorOf([] { fileRead(std::string("/dev\0/null", 10)); }), HasSubstr("Invalid arg"));
}

TEST(TrimPathTest, KeepsWhatThePathMeans) {
  for (const auto& [path, trimmed] :
       std::map<std::string, std::string>{{"", ""},
                                          {".", "."},
                                          {"././/", "."},
                                          {"/", "/"},
                                          {"//", "/"},
                                          {"/./.", "/"},
                                          {"a//b/./c/", "a/b/c"},
                                          {"//a/", "/a"},
                                          {"./a/..", "a/.."},
                                          {"../.a/b./...", "../.a/b./..."}}) {
    EXPECT_EQ(trimpath(path), trimmed) << path;
  }
}

}  // namespace
