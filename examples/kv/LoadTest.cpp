#include "LoadTest.h"

#include <fmt/format.h>

#include <utility>

namespace kv {

namespace {

constexpr double patience = 30;     // seconds without a single answer
constexpr double oddPatience = 60;  // seconds until the last odd client must be dropped
constexpr std::size_t faultsShown = 5;

/// Thrown out of the loop to end it.
struct Over {};

}  // namespace

LoadTest::LoadTest(int port, unsigned int workers, double seconds, const std::vector<File>& files)
    : seconds_(seconds),
      phaseTimer_(std::make_shared<Timer>(scheduler_, "phase", [this] { phaseEnds(); })),
      watchdog_(std::make_shared<Timer>(scheduler_, "watchdog", [this] { giveUpIfStuck(); })) {
  watchdog_->scheduleTaskDelay(patience);
  for (auto& script : OddClient::scripts()) {
    oddClients_.insert(std::make_shared<OddClient>(scheduler_, port, std::move(script),
                                                   [this](OddClient& client) { dropped(client); }));
  }
  for (unsigned int number = 0; number < workers; ++number) {
    workers_.push_back(std::make_shared<Worker>(scheduler_, port, number, files, *this));
  }
}

bool LoadTest::run() {
  try {
    for (const auto& worker : workers_) worker->begin(phase_);
    Tarvo::Platform::doEventLoop();
  } catch (const Over&) {
  }
  return !failed_ && wrong_ == 0 && phase_ == Phase::over;
}

void LoadTest::printSummary() const {
  Measurement::printHeading("background work");
  quiet_.print("off");
  busy_.print("on");
  for (const auto& oddity : oddities_) fmt::print("{}\n", oddity);
  fmt::print("{} answers checked byte for byte, {} wrong; {} keys stored, {:.1f} MB\n", answers_,
             wrong_, keyCount(), static_cast<double>(valueBytes()) / 1e6);
}

// The phases.

void LoadTest::finished() {
  if (++finishedWorkers_ < workers_.size()) return;
  if (phase_ != Phase::odd || oddClients_.empty()) nextPhase();
}

void LoadTest::nextPhase() {
  if (phase_ == Phase::over) throw Over();
  const Tarvo::Time now = Tarvo::time();
  if (phase_ == Phase::quiet) quiet_.end(now);
  if (phase_ == Phase::busy) busy_.end(now);
  phase_ = static_cast<Phase>(static_cast<unsigned>(phase_) + 1);
  finishedWorkers_ = 0;
  phaseTimer_->stopTimerTask();
  if (phase_ == Phase::quiet) quiet_.begin(now);
  if (phase_ == Phase::busy) busy_.begin(now);
  if (phase_ == Phase::quiet || phase_ == Phase::busy) phaseTimer_->scheduleTaskDelay(seconds_);
  if (phase_ == Phase::odd) phaseTimer_->scheduleTaskDelay(oddPatience);
  for (const auto& worker : workers_) worker->begin(phase_);
}

void LoadTest::phaseEnds() {
  if (phase_ == Phase::odd) failed("an odd client is still there");
  nextPhase();
}

// Answers.

void LoadTest::answered(Phase sentIn, double latency) {
  ++answers_;
  if (sentIn == Phase::quiet) quiet_.answered(latency);
  if (sentIn == Phase::busy) busy_.answered(latency);
}

void LoadTest::wrong(const std::string& what) {
  if (++wrong_ <= faultsShown) fmt::print("{}\n", what);
}

void LoadTest::failed(const std::string& why) {
  failed_ = true;
  fmt::print("{}, after {} answers\n", why, answers_);
  throw Over();
}

std::size_t LoadTest::keyCount() const {
  std::size_t count = 0;
  for (const auto& worker : workers_) count += worker->keyCount();
  return count;
}

std::size_t LoadTest::valueBytes() const {
  std::size_t bytes = 0;
  for (const auto& worker : workers_) bytes += worker->valueBytes();
  return bytes;
}

void LoadTest::giveUpIfStuck() {
  if (answers_ == answersBefore_) failed("no answer any more");
  answersBefore_ = answers_;
  watchdog_->scheduleTaskDelay(patience);
}

void LoadTest::dropped(OddClient& client) {
  oddities_.push_back(client.text());
  ++answers_;
  wrong_ += client.isRight() ? 0 : 1;
  std::erase_if(oddClients_, [&](const auto& other) { return other.get() == &client; });
  if (phase_ == Phase::odd && oddClients_.empty() && finishedWorkers_ == workers_.size()) {
    nextPhase();
  }
}

}  // namespace kv
