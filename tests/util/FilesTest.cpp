#include "Tarvo/Util.h"
#include "support/Test.h"

namespace {

/// What the system calls below do while a test has them in hand.
struct {
  bool armed = false;
  std::size_t refused = 0;  // which call fails
  bool namesCanSwap = true;
  std::vector<std::string> calls;
} kernel;

/// Makes the call, or lets it fail with EIO when its turn has come.
template <typename... Arguments>
int call(const char* name, long number, Arguments... arguments) {
  if (kernel.armed) kernel.calls.emplace_back(name);
  if (kernel.armed && kernel.calls.size() - 1 == kernel.refused) return errno = EIO, -1;
  return static_cast<int>(syscall(number, arguments...));
}

}  // namespace

// They stand before the C library's for the library too.
#define STANDS_BEFORE extern "C" [[gnu::visibility("default")]]
STANDS_BEFORE ssize_t write(int fd, const void* from, std::size_t count) {
  return call("write", SYS_write, fd, from, kernel.armed ? std::min<std::size_t>(count, 2) : count);
}
STANDS_BEFORE int openat(int folder, const char* path, int flags, ...) {
  std::va_list more;
  va_start(more, flags);
  const int result = call("openat", SYS_openat, folder, path, flags, va_arg(more, mode_t));
  va_end(more);
  return result;
}
STANDS_BEFORE int fsync(int fd) { return call("fsync", SYS_fsync, fd); }
STANDS_BEFORE int close(int fd) {
  const auto result = call("close", SYS_close, fd);
  if (result != 0) syscall(SYS_close, fd);  // the kernel closes it whatever it reports
  return result;
}
STANDS_BEFORE int renameat2(int a, const char* x, int b, const char* y, unsigned flags) noexcept {
  return call("swap", SYS_renameat2, a, x, b, y, kernel.namesCanSwap ? flags : ~0U);
}
STANDS_BEFORE int renameat(int a, const char* x, int b, const char* y) noexcept {
  return call("rename", SYS_renameat2, a, x, b, y, 0);
}
STANDS_BEFORE int unlinkat(int folder, const char* name, int flags) noexcept {
  return call("unlink", SYS_unlinkat, folder, name, flags);
}

namespace {

using namespace Tarvo::Util;
using namespace testsupport;

struct FilesTest : TempFolder {
  ~FilesTest() override { kernel = {}; }

  long files() const {
    const std::filesystem::directory_iterator all(folder);
    return std::distance(begin(all), end(all));
  }
  /// Writes with each system call failing in turn; the calls of the round in which none failed.
  std::vector<std::string> failEach(const std::optional<std::string>& old) {
    for (kernel.refused = 0; !HasFailure(); ++kernel.refused) {
      std::filesystem::remove(path);
      if (old) fileWrite(path, *old);
      std::error_code error, missing;
      kernel.calls.clear();
      kernel.armed = true;
      fileWrite(path, "new", 0600, error);
      kernel.armed = false;
      const auto found = fileRead(path, 99, missing);
      const auto count = kernel.calls.size();
      const auto failed = kernel.refused < count ? kernel.calls[kernel.refused] : "nothing";
      SCOPED_TRACE(failed + " " + std::to_string(kernel.refused));
      // Without an exchange of names the last step cannot be taken back.
      const bool lost = !kernel.namesCanSwap && failed == "fsync" && kernel.refused > 5;
      EXPECT_EQ(found, error && !lost ? old.value_or("") : "new");
      // On the last close, that of the folder, nothing depends.
      EXPECT_EQ(error.value(), kernel.refused + 1 < count ? EIO : 0);
      EXPECT_EQ(files(), error && !old ? 0 : 1);
      if (kernel.refused >= count) break;
    }
    return kernel.calls;
  }
  std::string path = folder + "/file";
};

TEST_F(FilesTest, KeepsTheOldFileWhateverSystemCallFails) {
  EXPECT_THAT(failEach("old"), ElementsAre("openat", "write", "write", "fsync", "close", "swap",
                                           "fsync", "unlink", "close"));
  EXPECT_THAT(failEach({}), ElementsAre("openat", "write", "write", "fsync", "close", "rename",
                                        "fsync", "close"));
  kernel.namesCanSwap = false;
  EXPECT_THAT(failEach("old"), ElementsAre("openat", "write", "write", "fsync", "close", "swap",
                                           "rename", "fsync", "close"));
}

TEST_F(FilesTest, WritesAllWithItsModeAndReplacesOnlyFilesAndLinks) {
  const std::string bytes("zero \0 and all\n", 15);
  const mode_t old = umask(027);
  fileWrite(path, bytes, 0666);
  umask(old);
  EXPECT_EQ(fileRead(path), bytes);
  EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0640));
  std::filesystem::create_symlink(path, folder + "/link");
  fileWrite(folder + "/link", "");
  EXPECT_EQ(fileSize(folder + "/link"), 0U);
  EXPECT_EQ(fileSize(path), bytes.size()) << "the link was replaced, not followed";
  ASSERT_EQ(mkfifo((folder + "/pipe").c_str(), 0600), 0);
  for (const auto& [name, reason] : std::map<std::string, std::string>{
           {folder + "/pipe", ": Operation not supported"},
           {folder, ": Is a directory"},
           {"", "write : No such file or directory"},
           {path + std::string("\0x", 2), "file\\0x: Invalid argument"}}) {
    EXPECT_THAT(errorOf([&, &where = name] { fileWrite(where, "x"); }), HasSubstr(reason)) << name;
  }
  EXPECT_EQ(files(), 3) << "no temporary is left";
}

TEST_F(FilesTest, ReadsToTheEndWithinTheLimit) {
  EXPECT_EQ(fileSize("/proc/self/maps"), 0U);
  EXPECT_GT(fileRead("/proc/self/maps").size(), 500U);
  const std::string large(100'000, 'x');
  fileWrite(path, large);
  EXPECT_EQ(fileRead(path, large.size()), large);
  EXPECT_THAT(errorOf([&] { fileRead(path, large.size() - 1); }),
              HasSubstr("cannot read " + path + ": File too large"));
  EXPECT_THAT(errorOf([&] { fileRead(folder); }), HasSubstr(folder + ": Is a directory"));
}

TEST(TrimPathTest, KeepsWhatThePathMeans) {
  const std::pair<const char*, const char*> paths[] = {
      {"", ""}, {"././/", "."}, {"/./.", "/"}, {"a//b/./c/", "a/b/c"}, {"../.a/..", "../.a/.."}};
  for (const auto& [path, trimmed] : paths) EXPECT_EQ(trimpath(path), trimmed);
}

}  // namespace
