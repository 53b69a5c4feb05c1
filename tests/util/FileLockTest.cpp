#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <filesystem>

#include "Tarvo/FileLock.h"
#include "Tarvo/Util.h"
#include "support/ChildProcess.h"
#include "support/Failure.h"

namespace {
bool locksRefused = false;
}

/// Stands before the C library's for the library too.
extern "C" [[gnu::visibility("default")]] int fcntl(int fd, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  const long argument = va_arg(arguments, long);
  va_end(arguments);
  if (command != F_OFD_SETLK || !locksRefused)
    return static_cast<int>(syscall(SYS_fcntl, fd, command, argument));
  errno = ENOLCK;
  return -1;
}

namespace {

using Tarvo::FileLock;
using testing::HasSubstr;
using testsupport::failureOf;
using testsupport::runForked;

struct FileLockTest : testing::Test {
  FileLockTest() { trace->enabledIs(1, true); }
  ~FileLockTest() override { std::filesystem::remove_all(directory); }

  int tryInChild() {
    return runForked([&] { return FileLock(*trace, sub, "lock").lock(true) ? 1 : 0; }).exitCode;
  }
  /// Those that are open now, or that an executed program would have.
  static int descriptors(bool inherited = false) {
    int count = 0;
    for (int fd = 0; fd < 256; ++fd) {
      const int flags = fcntl(fd, F_GETFD, 0L);
      if (flags != -1 && (!inherited || (flags & FD_CLOEXEC) == 0)) ++count;
    }
    return count;
  }
  std::shared_ptr<Tarvo::Platform::DebugHandler> trace = Tarvo::Platform::getDebugHandler("Locks");
  std::string directory = testing::TempDir() + "locks." + std::to_string(getpid());
  std::string sub = directory + "//a/b/";
};

TEST_F(FileLockTest, ExcludesOtherProcessesAndOtherObjects) {
  FileLock lock(*trace, sub, "lock");
  const mode_t old = umask(077);
  EXPECT_TRUE(lock.lock(false));
  EXPECT_EQ(umask(old), 077U);
  EXPECT_EQ(std::filesystem::status(lock.file()).permissions(), std::filesystem::perms(0666));
  EXPECT_EQ(std::filesystem::status(sub).permissions(), std::filesystem::perms(0700));
  EXPECT_TRUE(lock.lock(true));
  testing::internal::CaptureStderr();
  EXPECT_FALSE(lock.lock(false));
  FileLock other(*trace, sub, "lock");
  EXPECT_FALSE(other.lock(true));
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              HasSubstr("FileLock::lock() error: conflicting lock held on file:" + lock.file()));
  EXPECT_EQ(tryInChild(), 0);
  lock.release();
  EXPECT_EQ(tryInChild(), 1) << "and the child's end gave it back";
  EXPECT_TRUE(other.lock(false));
  EXPECT_THAT(failureOf([&] { lock.release(); }), HasSubstr("not currently held. File:" + sub));
  other.closeFd();
  EXPECT_TRUE(lock.lock(false));
  EXPECT_TRUE(other.lock(true)) << "it still believes to be the owner";
  EXPECT_THAT(failureOf([&] { other.release(); }), HasSubstr("attempting to release"));
}

TEST_F(FileLockTest, HasOneDescriptorAsLongAsItHolds) {
  FileLock lock(*trace, sub, "lock");
  FileLock other(*trace, sub, "lock");
  // The first backtrace of a process opens descriptors of its own.
  EXPECT_THAT(failureOf([&] { lock.release(); }), HasSubstr("attempting to release"));
  const int before = descriptors();
  const int inherited = descriptors(true);
  ASSERT_TRUE(lock.lock(false));
  EXPECT_FALSE(lock.lock(false) || other.lock(false));
  std::filesystem::remove(lock.file());
  EXPECT_TRUE(lock.lock(false)) << "on the file that is there now";
  EXPECT_FALSE(other.lock(false));
  EXPECT_EQ(descriptors(), before + 1);
  EXPECT_EQ(descriptors(true), inherited);
  locksRefused = true;
  EXPECT_THAT(failureOf([&] { lock.release(); }),
              HasSubstr("unexpected error: No locks available file:" + lock.file() + " fd:"));
  EXPECT_THAT(failureOf([&] { other.lock(false); }),
              HasSubstr("unexpected error: No locks available file:" + lock.file()));
  locksRefused = false;
  EXPECT_EQ(descriptors(), before + 1);
  lock.release();
  EXPECT_EQ(descriptors(), before);
  EXPECT_TRUE(other.lock(false));
  EXPECT_FALSE(lock.lock(true)) << "it owns nothing any more";
}

TEST_F(FileLockTest, AChildCannotReleaseAndAHolderThatIsKilledLetsGo) {
  {
    FileLock lock(*trace, sub, "lock");
    ASSERT_TRUE(lock.lock(false));
    const auto child = runForked([&] {
      const bool refused = failureOf([&] { lock.release(); }).find("called from child process:") !=
                           std::string::npos;
      if (refused) lock.~FileLock();
      return 0;
    });
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_EQ(tryInChild(), 0) << "the parent still holds it";
  }
  runForked([&] {
    FileLock lock(*trace, sub, "lock");
    return lock.lock(false) ? raise(SIGKILL) : 0;
  });
  EXPECT_EQ(tryInChild(), 1);
}

TEST_F(FileLockTest, SaysWhatItCannotOpen) {
  EXPECT_THAT(failureOf([&] { FileLock(*trace, "", "a/b"); }),
              HasSubstr("unexpected '/' in filename: a/b"));
  ASSERT_EQ(Tarvo::Util::mkpath(sub, 0777), 0);
  EXPECT_EQ(Tarvo::Util::mkpath(sub, 0777), -1);
  EXPECT_EQ(errno, EEXIST);
  ASSERT_EQ(chmod(sub.c_str(), 0555), 0);
  const auto child = runForked([&] {
    if (geteuid() == 0 && seteuid(65534) != 0) return 2;
    return FileLock(*trace, sub, "lock").lock(false) ? 1 : 0;
  });
  EXPECT_EQ(child.exitCode, 0);
  EXPECT_THAT(child.err, HasSubstr("error: could not open lock file:" + sub + "/lock Permission"));
  EXPECT_THAT(failureOf([&] { FileLock(*trace, "/dev/null/x", "lock").lock(false); }),
              HasSubstr("unexpected mkpath() error /dev/null/x: Not a directory"));
}

}  // namespace
