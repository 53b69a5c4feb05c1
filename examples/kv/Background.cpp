#include "Background.h"

#include <chrono>

namespace kv {

using namespace std::chrono_literals;
using Tarvo::TaskPriority;

namespace {

constexpr auto groupQuantum = 2ms;
constexpr auto memberQuantum = 500us;
constexpr std::size_t garbageWorthWhile = std::size_t{4} << 20;
constexpr std::size_t garbageLimit = std::size_t{256} << 20;

}  // namespace

/// Removes what nobody has asked for since its time has come.
class Background::Expiry : public Tarvo::TimerTask {
 public:
  Expiry(const std::shared_ptr<Tarvo::TaskScheduler>& scheduler, Store& store)
      : TimerTask(scheduler, TaskPriority::normal, "expiry"), store_(store) {
    taskQuantumIs(memberQuantum);
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
class Background::Compaction : public Tarvo::Task {
 public:
  Compaction(const std::shared_ptr<Tarvo::TaskScheduler>& scheduler, Store& store)
      : Task(scheduler, TaskPriority::low, "compaction"), store_(store) {
    taskQuantumIs(memberQuantum);
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
class Background::Digest : public Tarvo::TimerTask {
 public:
  Digest(const std::shared_ptr<Tarvo::TaskScheduler>& scheduler, Background& background)
      : TimerTask(scheduler, TaskPriority::low, "digest"), background_(background) {
    taskQuantumIs(memberQuantum);
    scheduleTask();
  }

 private:
  // What is appended during a round has its turn in the next one.
  void taskExecute() override {
    const Store& store = background_.store_;
    if (place_.chunk == 0) lastChunk_ = store.log().lastChunk();
    while (const Record* record = store.log().next(place_)) {
      if (record->chunk > lastChunk_) break;
      if (store.holds(*record)) digest(*record);
      if (taskShouldYield()) return scheduleTask();
    }
    if (lastChunk_ != 0) ++background_.digestRounds_;
    place_ = {};
    scheduleTaskJitterUp(5ms, 100);
  }

  void digest(const Record& record) {
    taskWorkCountInc(record.valueSize);
    if (checksum(record.value()) != record.checksum) ++background_.corruptValues_;
  }

  Background& background_;
  Log::Place place_;
  std::uint64_t lastChunk_ = 0;
};

Background::Background(const std::shared_ptr<Tarvo::TaskScheduler>& scheduler, Store& store)
    : store_(store),
      group_(
          std::make_shared<Tarvo::TaskGroup>("background", TaskPriority::low, false, scheduler)) {
  group_->taskGroupQuantumIs(groupQuantum);
  expiry_ = std::make_shared<Expiry>(group_, store);
  compaction_ = std::make_shared<Compaction>(group_, store);
  digest_ = std::make_shared<Digest>(group_, *this);
}

Background::~Background() = default;

void Background::onIs(bool on) {
  on_ = on;
  expiry_->taskSuspendedIs(!on);
  compaction_->taskSuspendedIs(!on);
  digest_->taskSuspendedIs(!on);
}

void Background::storeChanged() {
  const std::size_t garbage = store_.log().garbageBytes();
  if (garbage < garbageWorthWhile || !store_.log().wastefulChunk()) return;
  compaction_->taskSuspendedIs(!on_ && garbage < garbageLimit);
  if (!compaction_->taskSuspended()) compaction_->scheduleTask();
}

void Background::stop() {
  digest_.reset();
  compaction_.reset();
  expiry_.reset();
}

}  // namespace kv
