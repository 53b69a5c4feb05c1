#ifndef TARVO_MAPPINGS_H
#define TARVO_MAPPINGS_H

/// The memory map of a process: which file or other memory is mapped at which addresses.
///
///     const auto map = Tarvo::Mappings::self();
///     if (const auto* mapping = map.find(address)) {
///       show(mapping->path, address - mapping->begin + mapping->offset);
///     }
///
/// The map is read once and does not follow later changes. Reading takes time in proportion to the
/// number of mappings, find() its logarithm. Copies share the text, so the paths stay valid while
/// any copy lives. Any thread may read a map that no thread is assigning to.
///
/// A process that has ended has no map; a kernel thread has an empty one. NoPermissionException is
/// thrown when the kernel refuses to show the map, for instance of another user's process or of one
/// that is not dumpable.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "Tarvo/Export.h"
#include "Tarvo/Process.h"
#include "Tarvo/String.h"

namespace Tarvo {

enum class MappingKind : std::uint8_t {
  anonymous,
  file,   // also shared memory, devices, and what has a name like anon_inode:[perf]
  heap,   // [heap], which brk(2) extends
  stack,  // [stack] of the first thread; those of the others are anonymous
  vdso,   // [vdso], code of the kernel
  other,  // another name in brackets: [vvar], [vsyscall], [anon:name]
};

struct Mapping {
  std::uintptr_t begin = 0;
  std::uintptr_t end = 0;    // the first address behind it
  std::uint64_t offset = 0;  // of `begin` in the file
  dev_t device = 0;          // 0 without a file, as is the inode
  ino_t inode = 0;
  /// The file's path, or the name in brackets, or nothing. The kernel writes a line end in a path
  /// as \012, which is converted back; so a path with these four characters is shown wrong. The
  /// suffix " (deleted)" is removed.
  std::string_view path;
  MappingKind kind = MappingKind::anonymous;
  bool readable = false;
  bool writable = false;
  bool executable = false;
  bool shared = false;   // else private: changes are copies
  bool deleted = false;  // the file was removed (or its name ends in " (deleted)")
};

class TARVO_EXPORT Mappings {
 public:
  static Mappings self();
  /// None when the process has ended.
  static std::optional<Mappings> of(const Process& process);
  /// Parses the text of /proc/PID/maps. Throws RuntimeException with the first invalid line.
  static Mappings parse(String text);

  /// The mapping that holds the address; null when none does.
  const Mapping* find(std::uintptr_t address) const;
  const Mapping* find(const void* address) const {
    return find(reinterpret_cast<std::uintptr_t>(address));
  }

  /// All of them, by rising address.
  auto begin() const { return mappings_.begin(); }
  auto end() const { return mappings_.end(); }
  std::size_t size() const { return mappings_.size(); }

 private:
  std::shared_ptr<const String> text_;  // holds the paths
  std::vector<Mapping> mappings_;
};

}  // namespace Tarvo

#endif
