#ifndef TARVO_DIRNODE_H
#define TARVO_DIRNODE_H

/// Reads a directory.
///
///     auto trace = Tarvo::Platform::getDebugHandler("Plans");
///     Tarvo::DirNode plans(*trace);
///     plans.pathIs("/etc/plans");
///     for (const auto& name : plans.findFiles(".json")) read("/etc/plans/" + name);
///
/// When a directory cannot be opened, the node stays closed and a line is traced: at level 9 when
/// it is missing, forbidden or no directory, otherwise at level 1. A closed node has no entries.
/// Rewinding it or finding files in it throws RuntimeException, as does an error while reading.
///
/// A node can hold the node of its parent directory, so that a walk over a tree keeps its
/// ancestors.
///
/// Copy and move closed nodes only: copying an open one copies the handle of its stream, and both
/// nodes close it. Reading, rewinding and finding files use one position in the stream. A node is
/// used by one thread at a time.

#include <dirent.h>

#include <memory>
#include <vector>

#include "Tarvo/Debug.h"
#include "Tarvo/Export.h"
#include "Tarvo/String.h"

namespace Tarvo {

class TARVO_EXPORT DirNode : public Debuggable {
 public:
  /// Makes a closed node. openDir() opens `path`, which is not joined with the parent's path.
  DirNode(Platform::DebugHandler& handler);
  DirNode(Platform::DebugHandler& handler, const String& path, std::shared_ptr<DirNode> parent);
  DirNode(const DirNode& other);
  DirNode(DirNode&& other);
  DirNode& operator=(const DirNode&) = delete;
  ~DirNode();

  /// Sets the path and opens it.
  void pathIs(const String& path);
  const String& path() const { return path_; }
  const std::shared_ptr<DirNode>& parent() const { return parent_; }

  /// Opens the path; closes it first when it is open.
  void openDir();
  /// The next entry in directory order, "." and ".." included; null after the last one, and when
  /// the node is closed. Valid until the next call.
  dirent* readEntry() const;
  /// Goes back to the first entry.
  void rewind() const;
  /// The names of the regular files, and symbolic links of any kind, that end in `extension`.
  std::vector<String> findFiles(const String& extension) const;

 private:
  bool isFileOrLink(const dirent& entry) const;

  DIR* stream_ = nullptr;
  std::shared_ptr<DirNode> parent_;
  String path_;
};

}  // namespace Tarvo

#endif
