#ifndef TARVO_DETAIL_FILEIDENTITY_H
#define TARVO_DETAIL_FILEIDENTITY_H

#include <sys/types.h>

namespace Tarvo::Impl {

/// Tells files apart that had one descriptor number after another.
struct FileIdentity {
  /// Of an open descriptor; of another one nothing that any file has.
  static FileIdentity of(int fd);
  bool operator==(const FileIdentity&) const = default;

  dev_t device = 0;
  ino_t inode = 0;
};

}  // namespace Tarvo::Impl

#endif
