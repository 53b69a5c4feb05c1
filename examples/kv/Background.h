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

/// Copies what is alive out of wasteful chunks and frees them.
class Compaction : public Tarvo::Task {
 public:
  Compaction(const std::shared_ptr<Tarvo::TaskScheduler>& scheduler, Store& store)
      : Task(scheduler, Tarvo::TaskPriority::low, "compaction"), store_(store) {
    taskQuantumIs(backgroundQuantum);
  }

 private:
  void taskExecute() override {
    while (const auto copied = store_.compactOne()) {
      taskWorkCountInc(*copied);
      if (taskShouldYield()) return scheduleTask();
    }
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
  unsigned int corruptValues() const { return corruptValues_; }

 private:
  // What is appended during a round has its turn in the next one.
  void taskExecute() override {
    if (place_.chunk == 0) lastChunk_ = store_.log().lastChunk();
    while (const Record* record = store_.log().next(place_)) {
      if (record->chunk > lastChunk_) break;
      if (store_.holds(*record)) digest(*record);
      if (taskShouldYield()) return scheduleTask();
    }
    if (lastChunk_ != 0) ++rounds_;
    place_ = {};
    scheduleTaskJitterUp(200ms, 50);  // whatever else happens, most of the thread is the clients'
  }

  void digest(const Record& record) {
    taskWorkCountInc(record.valueSize);
    if (checksum(record.value()) != record.checksum) ++corruptValues_;
  }

  const Store& store_;
  unsigned int rounds_ = 0;
  unsigned int corruptValues_ = 0;
  Log::Place place_;
  std::uint64_t lastChunk_ = 0;
};

class Background {
 public:
  Background(const std::shared_ptr<Tarvo::TaskScheduler>& scheduler, Store& store)
      : store_(store),
        group_(std::make_shared<Tarvo::TaskGroup>("background", Tarvo::TaskPriority::low, false,
                                                  scheduler)) {
    group_->taskGroupQuantumIs(2ms);
  }

  /// Suspends all members or resumes them. Compaction goes on, whatever was said, while there is
  /// too much garbage.
  bool on() const { return on_; }
  void onIs(bool on) {
    on_ = on;
    expiry_->taskSuspendedIs(!on);
    compaction_->taskSuspendedIs(!on);
    digest_->taskSuspendedIs(!on);
  }
  /// Told after each change of the store, which may have made garbage.
  void storeChanged() {
    const std::size_t garbage = store_.log().garbageBytes();
    if (garbage < garbageWorthWhile || !store_.log().wastefulChunk()) return;
    compaction_->taskSuspendedIs(!on_ && garbage < garbageLimit);
    if (!compaction_->taskSuspended()) compaction_->scheduleTask();
  }
  const Digest& digest() const { return *digest_; }

 private:
  static constexpr std::size_t garbageWorthWhile = std::size_t{4} << 20;
  static constexpr std::size_t garbageLimit = std::size_t{256} << 20;

  Store& store_;
  bool on_ = true;
  std::shared_ptr<Tarvo::TaskGroup> group_;
  std::shared_ptr<Expiry> expiry_ = std::make_shared<Expiry>(group_, store_);
  std::shared_ptr<Compaction> compaction_ = std::make_shared<Compaction>(group_, store_);
  std::shared_ptr<Digest> digest_ = std::make_shared<Digest>(group_, store_);
};

}  // namespace kv

#endif
