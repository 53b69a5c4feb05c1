#ifndef TARVO_EXAMPLES_KV_BACKGROUND_H
#define TARVO_EXAMPLES_KV_BACKGROUND_H

#include <chrono>
#include <cstddef>
#include <memory>

#include "Store.h"
#include "Tarvo/TaskScheduler.h"
#include "Timer.h"

namespace kv {

using namespace std::chrono_literals;

/// The work that nobody waits for, in a task group of its own: together its members take the thread
/// for no longer than the group's quantum at a time, and only when no client has to be served or
/// the scheduler's guard against starvation lets them in.
class Background {
 public:
  Background(const std::shared_ptr<Tarvo::TaskScheduler>& scheduler, Store& store)
      : store_(store),
        group_(std::make_shared<Tarvo::TaskGroup>("background", Tarvo::TaskPriority::low, false,
                                                  scheduler)),
        expiry_(std::make_shared<Timer>(group_, "expiry", [this] { expire(); })),
        digest_(std::make_shared<Timer>(
            group_, "digest", [this] { digest(); }, Tarvo::TaskPriority::low)) {
    group_->taskGroupQuantumIs(2ms);
    for (const auto& member : {expiry_, digest_}) {
      member->taskQuantumIs(500us);
      member->scheduleTask();
    }
  }

  /// Suspends all members or resumes them.
  bool on() const { return on_; }
  void onIs(bool on) {
    on_ = on;
    for (const auto& member : {expiry_, digest_}) member->taskSuspendedIs(!on);
  }

  /// Rounds of the digest over all data, and values that had changed by themselves.
  unsigned int digestRounds() const { return digestRounds_; }
  std::size_t corruptValues() const { return corruptValues_; }

 private:
  /// Removes what nobody has asked for since its time has come.
  void expire() {
    while (store_.expireOne()) {
      expiry_->taskWorkCountInc(1);
      if (expiry_->taskShouldYield()) return expiry_->scheduleTask();
    }
    expiry_->scheduleTaskJitterUp(50ms, 20);
  }

  /// Computes the checksums of all values anew, round after round, and compares.
  void digest() {
    while (const auto found = store_.digest(slot_)) {
      ++slot_;
      corruptValues_ += found->corruptValues;
      digest_->taskWorkCountInc(found->bytes);
      if (digest_->taskShouldYield()) return digest_->scheduleTask();
    }
    if (store_.keyCount() > 0) ++digestRounds_;
    slot_ = 0;
    digest_->scheduleTaskJitterUp(200ms, 50);  // most of the thread is the clients', come what may
  }

  Store& store_;
  bool on_ = true;
  unsigned int digestRounds_ = 0;
  std::size_t corruptValues_ = 0;
  std::size_t slot_ = 0;  // of the store, where the digest goes on
  std::shared_ptr<Tarvo::TaskGroup> group_;
  std::shared_ptr<Timer> expiry_;
  std::shared_ptr<Timer> digest_;
};

}  // namespace kv

#endif
