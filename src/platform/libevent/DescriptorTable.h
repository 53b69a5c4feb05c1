#ifndef TARVO_SRC_PLATFORM_DESCRIPTORTABLE_H
#define TARVO_SRC_PLATFORM_DESCRIPTORTABLE_H

#include <sys/types.h>

#include <cstddef>
#include <unordered_map>

#include "Tarvo/LibeventControls.h"
#include "Tarvo/List.h"
#include "platform/libevent/PendingPolls.h"

namespace Tarvo::Impl {

/// Which file a descriptor number refers to. The number alone does not tell: after close() the
/// kernel gives it to the next file.
struct FileIdentity {
  /// The file behind `fd`; a value equal to no file's when `fd` is not open.
  static FileIdentity of(int fd);
  bool operator==(const FileIdentity&) const = default;

  dev_t device = 0;
  ino_t inode = 0;
};

class DescriptorTable;

/// A descriptor and the controls that watch it. libevent registers a descriptor with the kernel
/// once for all its events, either edge-triggered or level-triggered. So all its controls must use
/// one mode: edges if every control can work with them, otherwise levels.
struct Descriptor {
  using Controls = List<LibeventFdControl, &LibeventFdControl::sharersLink_>;

  Descriptor(DescriptorTable& owner, int fd)
      : table(owner), number(fd), file(FileIdentity::of(fd)) {}

  /// Whether the number still refers to the file that is watched.
  bool open() const { return FileIdentity::of(number) == file; }
  void enter(LibeventFdControl& control);
  void remove(LibeventFdControl& control) noexcept;
  /// Re-adds all events when the mode has to change. A control whose events libevent refuses then
  /// has no descriptor any more.
  void updateTriggerMode();
  /// Makes sure that the kernel's registration refers to the present file, and has the kernel
  /// report present readiness once more.
  void refreshRegistration() const;

  DescriptorTable& table;
  const int number;
  const FileIdentity file;
  Controls controls;                    // never empty
  std::size_t levelTriggeredCount = 0;  // of controls that need a report in every turn
  bool edgeTriggered = true;            // the mode of all events that are added
};

/// The descriptors that a thread watches, and those of them that it still has to poll.
class DescriptorTable {
 public:
  DescriptorTable() = default;
  DescriptorTable(const DescriptorTable&) = delete;
  DescriptorTable& operator=(const DescriptorTable&) = delete;
  /// Controls that are left have no descriptor from then on.
  ~DescriptorTable();

  /// Call before `fd` is watched. Where controls still watch an earlier file of that number, which
  /// was closed, they lose their descriptor. Their owners are told, and may then do anything.
  void forgetClosed(int fd);
  /// Gives a control its descriptor. REQUIRES: it has none. No event is added yet.
  void join(LibeventFdControl& control, int fd);
  static void leave(LibeventFdControl& control) noexcept;

  PendingPolls& pendingPolls() { return pendingPolls_; }

 private:
  std::unordered_map<int, Descriptor> descriptors_;  // by number; each has a control
  PendingPolls pendingPolls_;
};

/// The table of the calling thread's loop, made at the first call.
DescriptorTable& descriptorTable();

}  // namespace Tarvo::Impl

#endif
