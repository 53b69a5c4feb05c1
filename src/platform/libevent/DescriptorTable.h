#ifndef TARVO_SRC_PLATFORM_DESCRIPTORTABLE_H
#define TARVO_SRC_PLATFORM_DESCRIPTORTABLE_H

#include <sys/types.h>

#include <cstddef>
#include <unordered_map>

#include "Tarvo/LibeventControls.h"
#include "Tarvo/List.h"
#include "platform/libevent/ServedReads.h"

namespace Tarvo::Impl {

/// Tells files apart that had one descriptor number after another.
struct FileIdentity {
  /// Of an open descriptor; of another one nothing that any file has.
  static FileIdentity of(int fd);
  bool operator==(const FileIdentity&) const = default;

  dev_t device = 0;
  ino_t inode = 0;
};

class DescriptorTable;

/// A descriptor and the controls that watch it. The event library registers it with the kernel
/// once, by edges or by levels, and keeps that registration as long as an event is left; so they
/// must agree.
struct Descriptor {
  using Controls = List<LibeventFdControl, &LibeventFdControl::sharersLink_>;

  Descriptor(DescriptorTable& owner, int fd)
      : table(owner), number(fd), file(FileIdentity::of(fd)) {}

  /// Whether the number still stands for the file that is watched.
  bool open() const { return FileIdentity::of(number) == file; }
  void enter(LibeventFdControl& control);
  void remove(LibeventFdControl& control) noexcept;
  /// When the kind has changed all watch anew; one that is refused has no descriptor any more.
  void agree();
  /// Makes sure that the registration is of the file as it is now, and lets the kernel report once
  /// more whatever is ready.
  void renew() const;

  DescriptorTable& table;
  const int number;
  const FileIdentity file;
  Controls controls;         // never empty
  std::size_t byLevels = 0;  // those of the controls that are told in every turn
  bool edge = true;          // when all can do with that
};

/// What a thread watches, and what of that it has to ask the kernel about.
class DescriptorTable {
 public:
  DescriptorTable() = default;
  DescriptorTable(const DescriptorTable&) = delete;
  DescriptorTable& operator=(const DescriptorTable&) = delete;
  /// The controls that are left watch nothing.
  ~DescriptorTable();

  /// Takes the descriptor from those who watched a file that had this number before and was closed.
  /// Their owners are told, and may do anything.
  void forgetClosed(int fd);
  /// Enters a control without a descriptor, which watches nothing yet.
  void join(LibeventFdControl& control, int fd);
  static void leave(LibeventFdControl& control) noexcept;

  ServedReads& servedReads() { return servedReads_; }

 private:
  std::unordered_map<int, Descriptor> descriptors_;  // by number, as long as they are watched
  ServedReads servedReads_;
};

/// The table of the calling thread's loop, made at the first call.
DescriptorTable& descriptorTable();

}  // namespace Tarvo::Impl

#endif
