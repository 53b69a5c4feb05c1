#include "Tarvo/FileLock.h"

#include "support/Test.h"

namespace {
int lockError = 0;
}

/// Stands before the C library's for the library too.
extern "C" [[gnu::visibility("default")]] int fcntl(int fd, int command, ...) {
  std::va_list more;
  va_start(more, command);
  auto* argument = va_arg(more, void*);
  va_end(more);
  if (command == F_OFD_SETLK && lockError != 0) return errno = lockError, -1;
  return static_cast<int>(syscall(SYS_fcntl, fd, command, argument));
}

namespace {

using namespace testsupport;
using Tarvo::FileLock;

struct FileLockTest : TempFolder {
  FileLockTest() { trace->enabledIs(1, true); }

  int tryInChild() {
    return runForked([&] { return FileLock(*trace, sub, "lock").lock(true); }).exitCode;
  }
  std::shared_ptr<Tarvo::Platform::DebugHandler> trace = getDebugHandler("Locks");
  std::string sub = folder + "//a/b/";
  FileLock lock{*trace, sub, "lock"};
  FileLock other{*trace, sub, "lock"};
};

TEST_F(FileLockTest, ExcludesOtherProcessesAndOtherObjects) {
  const mode_t old = umask(077);
  EXPECT_TRUE(lock.lock(false));
  EXPECT_EQ(umask(old), 077U);
  EXPECT_EQ(std::filesystem::status(lock.file()).permissions(), std::filesystem::perms(0666));
  EXPECT_EQ(std::filesystem::status(sub).permissions(), std::filesystem::perms(0700));
  EXPECT_TRUE(lock.lock(true));
  EXPECT_THAT(captured([&] { EXPECT_FALSE(lock.lock(false) || other.lock(true)); }),
              HasSubstr("FileLock::lock() error: conflicting lock held on file:" + lock.file()));
  EXPECT_EQ(tryInChild(), 0);
  lock.release();
  EXPECT_EQ(tryInChild(), 1) << "and the child's end gave it back";
  EXPECT_TRUE(other.lock(false));
  EXPECT_FALSE(lock.lock(true)) << "it owns nothing any more";
  EXPECT_THAT(failureOf([&] { lock.release(); }), HasSubstr("not currently held. File:" + sub));
  other.closeFd();
  EXPECT_TRUE(lock.lock(false));
  EXPECT_TRUE(other.lock(true)) << "it still believes to be the owner";
}

TEST_F(FileLockTest, HasOneDescriptorAsLongAsItHolds) {
  const auto before = openDescriptors();
  const int next = dup(0);
  close(next);
  ASSERT_TRUE(lock.lock(false));
  EXPECT_EQ(fcntl(next, F_GETFD), FD_CLOEXEC);
  EXPECT_FALSE(lock.lock(false) || other.lock(false));
  std::filesystem::remove(lock.file());
  EXPECT_TRUE(lock.lock(false)) << "on the file that is there now";
  EXPECT_FALSE(other.lock(false));
  EXPECT_EQ(openDescriptors(), before + 1);
  lock.release();
  std::thread([&] {
    FileLock last(*trace, sub, "lock");
    EXPECT_TRUE(last.lock(false));
    pthread_cancel(pthread_self());  // which closing must not begin
  }).join();
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_TRUE(other.lock(false));
}

TEST_F(FileLockTest, AChildCannotReleaseAndAHolderThatIsKilledLetsGo) {
  ASSERT_TRUE(lock.lock(false));
  const auto child = runForked([&] {
    const auto failure = failureOf([&] { lock.release(); });
    if (failure.find("called from child process:") != failure.npos) lock.~FileLock();
    return 0;
  });
  EXPECT_EQ(child.signal, SIGABRT);
  EXPECT_EQ(tryInChild(), 0) << "the parent still holds it";
  lock.release();
  runForked([&] { return lock.lock(false) ? raise(SIGKILL) : 0; });
  EXPECT_EQ(tryInChild(), 1);
}

TEST_F(FileLockTest, SaysWhatItCannotOpen) {
  EXPECT_THAT(failureOf([&] { FileLock(*trace, "", "a/b"); }),
              HasSubstr("unexpected '/' in filename: a/b"));
  EXPECT_THAT(failureOf([&] { FileLock(*trace, "/dev/null/x", "lock").lock(false); }),
              HasSubstr("unexpected mkpath() error /dev/null/x: Not a directory"));
  EXPECT_THAT(captured([&] { EXPECT_FALSE(FileLock(*trace, "/", "tmp").lock(false)); }),
              HasSubstr("could not open lock file://tmp Is a directory"));
  lockError = ENOLCK;
  EXPECT_THAT(failureOf([&] { lock.lock(false); }),
              HasSubstr("unexpected error: No locks available"));
  lockError = 0;
  lock.closeFd();
}

}  // namespace
