#ifndef TARVO_EXAMPLES_KV_BACKGROUND_H
#define TARVO_EXAMPLES_KV_BACKGROUND_H

/// The work that nobody waits for, in a task group of its own: together its members take the thread
/// for no longer than the group's quantum at a time, and only when no client has to be served or
/// the scheduler's guard against starvation lets them in.

#include <cstddef>
#include <memory>

#include "Store.h"
#include "Tarvo/TaskScheduler.h"

namespace kv {

class Background {
 public:
  Background(const std::shared_ptr<Tarvo::TaskScheduler>& scheduler, Store& store);
  ~Background();
  Background(const Background&) = delete;
  Background& operator=(const Background&) = delete;

  /// Suspends all members or resumes them. Compaction goes on, whatever was said, while there is
  /// too much garbage.
  bool on() const { return on_; }
  void onIs(bool on);
  /// Told after each change of the store, which may have made garbage.
  void storeChanged();

  /// Ends the members; the group stays, for their figures.
  void stop();

  const Tarvo::TaskGroup& group() const { return *group_; }
  /// Rounds of the digest over all data, and values that had changed by themselves.
  unsigned int digestRounds() const { return digestRounds_; }
  unsigned int corruptValues() const { return corruptValues_; }

 private:
  class Expiry;
  class Compaction;
  class Digest;

  Store& store_;
  bool on_ = true;
  unsigned int digestRounds_ = 0;
  unsigned int corruptValues_ = 0;
  std::shared_ptr<Tarvo::TaskGroup> group_;
  std::shared_ptr<Expiry> expiry_;
  std::shared_ptr<Compaction> compaction_;
  std::shared_ptr<Digest> digest_;
};

}  // namespace kv

#endif
