#ifndef TARVO_FILELOCK_H
#define TARVO_FILELOCK_H

/// An exclusive lock on a named file, among processes and among the holders of one process.
///
///     auto trace = Tarvo::Platform::getDebugHandler("Store");
///     Tarvo::FileLock lock(*trace, "/var/lib/store", "writer.lock");
///     if (!lock.lock(false)) return alreadyRunning(lock.ownerDescription());
///     ...  // until release(), or the end of `lock`
///
/// How it works: the lock belongs to the open file, not to the process (Linux's open file
/// description locks). So two FileLock objects of one process exclude each other. The kernel drops
/// the lock when the last process that has the file open ends: the owner, or a child that it forked
/// and that has not called exec(). The file and its directories are made when they are missing;
/// everybody may open the file. It is never removed: two waiters could otherwise hold locks on
/// different files of one name.
///
/// A forked child has the parent's lock open, but releasing it fails an assertion. The destructor
/// of a held lock releases it, so a child must not run that destructor: it should call exec(),
/// which closes the file, or _exit().
///
/// The lock is advisory: it excludes only programs that ask for it. An object is used by one thread
/// at a time. While a lock file is made, the umask of the process is 0 for a moment.

#include <sys/types.h>

#include "Tarvo/Debug.h"
#include "Tarvo/Export.h"
#include "Tarvo/String.h"

namespace Tarvo {

class TARVO_EXPORT FileLock : public Debuggable {
 public:
  /// Does not open the file yet. Traces to `handler`: contention at level 1, the rest at level 5.
  /// An empty directory means the current one. Fails an assertion when the file name contains a
  /// slash.
  FileLock(Platform::DebugHandler& handler, const String& directory, const String& fileName);
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;
  /// Releases the lock if it is held.
  ~FileLock();

  /// Tries to get the lock, without waiting; false when another holder has it, or when the file
  /// cannot be opened. When this object holds it already, the result is `reentry`. Fails an
  /// assertion on other errors.
  bool lock(bool reentry);
  /// Gives the lock up. Fails an assertion when this process does not hold it.
  void release();
  /// Closes the file, which drops the lock unless a forked child has it open. The object still
  /// names this process as the owner, so a later lock(true) returns true without a lock. For
  /// programs that close all descriptors and will not lock again.
  void closeFd();

  const String& file() const { return path_; }
  /// Who holds the lock, for an error message: "process 12 (store)", several with commas between
  /// them (a forked child holds its parent's lock), or "nobody". Says how many processes could not
  /// be examined. Reads the descriptors of all processes, which may take a while;
  /// OwnerSearch::ofLock() does the same in steps. Throws what that throws.
  String ownerDescription() const;

 private:
  String directory_;
  String path_;
  int descriptor_ = -1;  // open while the lock is held
  pid_t ownerPid_ = -1;
};

/// The numbers of fcntl()'s commands that set and ask for locks of open file descriptions.
TARVO_EXPORT int cmd_F_OFD_SETLK();
TARVO_EXPORT int cmd_F_OFD_GETLK();

}  // namespace Tarvo

#endif
