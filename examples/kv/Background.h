#ifndef TARVO_EXAMPLES_KV_BACKGROUND_H
#define TARVO_EXAMPLES_KV_BACKGROUND_H

/// The work that nobody waits for, in a task group of its own: together its members take the thread
/// for no longer than the group's quantum at a time, and only when no client has to be served or
/// the scheduler's guard against starvation lets them in.

#include <chrono>
#include <cstddef>
#include <memory>

#include "Store.h"
#include "Tarvo/TaskScheduler.h"

namespace kv {

using namespace std::chrono_literals;

constexpr auto backgroundQuantum = 500us;  // of a member

/// Removes what nobody has asked for since its time has come.
class Expiry : public Tarvo::TimerTask {
 public:
  Expiry(const std::shared_ptr<Tarvo::TaskScheduler>& scheduler, Store& store)
      : TimerTask(scheduler, Tarvo::TaskPriority::normal, "expiry"), store_(store) {
    taskQuantumIs(backgroundQuantum);
    scheduleTask();
  }

 private:
  void taskExecute() override {
    while (store_.expireOne()) {
      taskWorkCountInc(1);
      if (taskShouldYield()) return scheduleTask();
    }
    scheduleTaskJitterUp(50ms, 20);
  }

  Store& store_;
};

/// Computes the checksums of all values anew, round after round, and compares.
class Digest : public Tarvo::TimerTask {
 public:
  Digest(const std::shared_ptr<Tarvo::TaskScheduler>& scheduler, const Store& store)
      : TimerTask(scheduler, Tarvo::TaskPriority::low, "digest"), store_(store) {
    taskQuantumIs(backgroundQuantum);
    scheduleTask();
  }

  /// Rounds over all data, and values that had changed by themselves.
  unsigned int rounds() const { return rounds_; }
  std::size_t corruptValues() const { return corruptValues_; }

 private:
  void taskExecute() override {
    while (const auto found = store_.digest(slot_)) {
      ++slot_;
      corruptValues_ += found->corruptValues;
      taskWorkCountInc(found->bytes);
      if (taskShouldYield()) return scheduleTask();
    }
    if (store_.keyCount() > 0) ++rounds_;
    slot_ = 0;
    scheduleTaskJitterUp(200ms, 50);  // whatever else happens, most of the thread is the clients'
  }

  const Store& store_;
  unsigned int rounds_ = 0;
  std::size_t corruptValues_ = 0;
  std::size_t slot_ = 0;  // the next one
};

class Background {
 public:
  Background(const std::shared_ptr<Tarvo::TaskScheduler>& scheduler, Store& store)
      : group_(std::make_shared<Tarvo::TaskGroup>("background", Tarvo::TaskPriority::low, false,
                                                  scheduler)),
        expiry_(std::make_shared<Expiry>(group_, store)),
        digest_(std::make_shared<Digest>(group_, store)) {
    group_->taskGroupQuantumIs(2ms);
  }

  /// Suspends all members or resumes them.
  bool on() const { return on_; }
  void onIs(bool on) {
    on_ = on;
    expiry_->taskSuspendedIs(!on);
    digest_->taskSuspendedIs(!on);
  }
  const Digest& digest() const { return *digest_; }

 private:
  bool on_ = true;
  std::shared_ptr<Tarvo::TaskGroup> group_;
  std::shared_ptr<Expiry> expiry_;
  std::shared_ptr<Digest> digest_;
};

}  // namespace kv

#endif
