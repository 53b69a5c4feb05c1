#ifndef TARVO_FILELOCK_H
#define TARVO_FILELOCK_H

/// An exclusive lock on a named file, among processes and among the holders of one process.
///
///     auto trace = Tarvo::Platform::getDebugHandler("Store");
///     Tarvo::FileLock lock(*trace, "/var/lib/store", "writer.lock");
///     if (!lock.lock(false)) return alreadyRunning(lock.ownerDescription());
///     ...  // until release(), or the end of `lock`
///
/// How it works: the lock belongs to the open file, not to the process (open file description locks
/// of Linux). So two FileLock objects of one process exclude each other, and the lock goes with the
/// process, however it ends, and with its forked children that have not executed another program.
/// The file and its directories are made when they are missing; the file can be opened by
/// everybody. It stays there: removing a lock file that others wait for would give them different
/// files to lock.
///
/// A forked child holds the parent's lock open but must not release it: an assertion fails. As
/// destroying the object releases, a child that destroys one that is held ends; children should
/// execute another program, which does not inherit it, or leave with _exit().
///
/// The lock is advisory: it binds those who ask. An object is used by one thread at a time. While a
/// file is made the umask of the process is 0 for a moment.

#include <sys/types.h>

#include "Tarvo/Debug.h"
#include "Tarvo/Export.h"
#include "Tarvo/String.h"

namespace Tarvo {

class TARVO_EXPORT FileLock : public Debuggable {
 public:
  /// Touches nothing yet. Traces through `handler`: contention at level 1, the rest at level 5.
  /// With an empty directory the file stands in the current one. Fails an assertion when the file
  /// name contains a slash.
  FileLock(Platform::DebugHandler& handler, const String& directory, const String& fileName);
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;
  /// Releases what is held.
  ~FileLock();

  /// Tries to get the lock, without waiting; false when another holder has it, or when the file
  /// cannot be opened. Holding it already counts as success with `reentry`, and as a conflict
  /// without. Fails an assertion on other errors.
  bool lock(bool reentry);
  /// Gives the lock up. Fails an assertion when this process does not hold it.
  void release();
  /// Closes the file, and with it drops the lock (unless a forked child has it open), but goes on
  /// naming this process as the owner: a lock(true) that follows says yes without having one. Meant
  /// for those who have to close descriptors and will not lock again.
  void closeFd();

  const String& file() const { return path_; }
  /// Who holds the lock, for the message to whom it was refused: "process 12 (store)", with a comma
  /// between several (a forked child holds its parent's), or "nobody". Counts the processes that
  /// could not be looked at. Looks at the descriptors of all processes, which may take a while; to
  /// do that in steps use OwnerSearch::ofLock(). Throws what that throws.
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
