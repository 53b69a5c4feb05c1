#ifndef TARVO_SRC_UTIL_OWNERWALK_H
#define TARVO_SRC_UTIL_OWNERWALK_H

#include <optional>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "Tarvo/Owners.h"
#include "util/DescriptorWalk.h"
#include "util/KernelTables.h"
#include "util/ProcFolder.h"

namespace Tarvo::Impl {

/// The steps of a search: first the lines of some tables, then the descriptors of all processes.
/// Derived classes decide which lines and descriptors match.
class OwnerWalk {
 public:
  explicit OwnerWalk(std::vector<const char*> tables) : tables_(std::move(tables)) {}
  virtual ~OwnerWalk() = default;

  /// Makes one short step; false when the search has ended.
  bool advance() {
    if (done_ || readTables()) return !done_;
    if (!walk_ && worthWalking()) walk_.emplace();
    if (walk_ && walk_->next()) {
      if (walk_->atDescriptor()) look(*walk_);
      refused_ = walk_->refused().size();
      return true;
    }
    if (walk_) complete(*walk_);
    walk_.reset();
    done_ = true;
    return false;
  }

  const std::vector<Owner>& owners() const { return owners_; }
  std::size_t refused() const { return refused_; }

 protected:
  void add(const Process& process, int descriptor, ino_t inode, bool listening) {
    if (owners_.empty() || owners_.back().process != process) inodes_.clear();
    if (!inodes_.insert(inode).second) return;
    owners_.push_back({process, descriptor, inode, listening});
  }
  void addHere(const DescriptorWalk& walk, ino_t inode, bool listening) {
    const auto process = processAt(walk.folder(), walk.pid());
    if (process) add(*process, walk.descriptor(), inode, listening);
  }

 private:
  virtual void takeLine(std::string_view line) = 0;
  virtual bool worthWalking() const { return true; }
  virtual void look(const DescriptorWalk& walk) = 0;
  virtual void complete(const DescriptorWalk&) {}

  /// Reads a line of the tables; false when all tables have been read.
  bool readTables() {
    if (!tableOpen_) {
      if (tables_.empty()) return false;
      const char* table = tables_.back();
      tables_.pop_back();
      tableOpen_ = reader_.open(table);
    } else if (const auto line = reader_.next()) {
      takeLine(*line);
    } else {
      tableOpen_ = false;
    }
    return true;
  }

  std::vector<const char*> tables_;  // still to be read
  TableReader reader_;
  bool tableOpen_ = false;
  std::optional<DescriptorWalk> walk_;
  bool done_ = false;
  std::vector<Owner> owners_;
  std::unordered_set<ino_t> inodes_;  // already reported for the last process in owners_
  std::size_t refused_ = 0;
};

}  // namespace Tarvo::Impl

#endif
