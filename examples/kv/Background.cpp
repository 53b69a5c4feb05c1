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
  static constexpr std::size_t sliceSize = 16 << 10;

  void taskExecute() override {
    // What is appended during the round has its turn in the next one.
    if (place_ == Log::Place()) lastChunk_ = log().lastChunk();
    while (nextRecord()) {
      digestSlice();
      if (taskShouldYield()) return scheduleTask();
    }
    if (lastChunk_ != 0) ++background_.digestRounds_;
    place_ = {};
    scheduleTaskJitterUp(5ms, 100);
  }

  // Compaction may have taken the record away between two runs, in the midst of its digest.
  bool nextRecord() {
    const Log::Place before = place_;
    const bool found = log().find(place_) && place_.chunk <= lastChunk_;
    if (place_ != before) begin(place_);
    return found;
  }

  void digestSlice() {
    const Log::Record record = log().at(place_);
    if (!background_.store_.holds(place_, record.key)) return begin(log().after(place_));
    const std::string_view slice = record.value.substr(done_, sliceSize);
    sum_ = checksum(slice, sum_);
    done_ += slice.size();
    taskWorkCountInc(slice.size());
    if (done_ < record.value.size()) return;
    if (sum_ != record.sum) ++background_.corruptValues_;
    begin(log().after(place_));
  }

  void begin(Log::Place place) {
    place_ = place;
    done_ = 0;
    sum_ = checksumOfNothing;
  }

  const Log& log() const { return background_.store_.log(); }

  Background& background_;
  Log::Place place_;
  std::uint64_t lastChunk_ = 0;
  std::size_t done_ = 0;  // of the value at place_
  std::uint64_t sum_ = checksumOfNothing;
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

void Background::garbageIs(std::size_t bytes) {
  if (bytes < garbageWorthWhile) return;
  compaction_->taskSuspendedIs(!on_ && bytes < garbageLimit);
  if (!compaction_->taskSuspended()) compaction_->scheduleTask();
}

void Background::stop() {
  digest_.reset();
  compaction_.reset();
  expiry_.reset();
}

}  // namespace kv
