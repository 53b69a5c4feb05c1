#include "LoadTest.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace kv {

using Tarvo::TaskPriority;

namespace {

constexpr double patience = 30;     // seconds without a single answer
constexpr double oddPatience = 60;  // seconds until the last odd client must be dropped
constexpr std::size_t faultsShown = 5;

Script halfRequest() { return {"half a request", "SET half 100\nonly so much", 0, ""}; }

Script nonsense() {
  const std::string more(1'000'000, 'y');  // which must not cost it the answer
  return {"nonsense", "GET nothing\nOPEN SESAME\n" + more, 0, "NONE\nERROR not a request\n"};
}

Script lateReader() {
  const std::string value(60'000, 'x');
  const std::string answer = fmt::format("VALUE {}\n{}\n", value.size(), value);
  Script script{"reads late", fmt::format("SET late {}\n{}\n", value.size(), value), 0.3, "OK\n"};
  for (int request = 0; request < 300; ++request) {
    script.says += "GET late\n";
    script.expects += answer;
  }
  script.says += "DEL late\nTHANKS\n";
  script.expects += "OK\nERROR not a request\n";
  return script;
}

/// Thrown out of the loop to end it.
struct Over {};

/// The entry of a set for an object in it.
template <typename Set, typename Object>
auto entryOf(Set& set, const Object& object) {
  return std::ranges::find_if(set, [&object](const auto& entry) { return entry.get() == &object; });
}

}  // namespace

class LoadTest::PhaseTimer : public Tarvo::TimerTask {
 public:
  PhaseTimer(const std::shared_ptr<Tarvo::TaskScheduler>& scheduler, LoadTest& test)
      : TimerTask(scheduler, TaskPriority::high, "phase"), test_(test) {}

 private:
  void taskExecute() override {
    if (test_.phase() == Phase::odd) test_.failed("an odd client is still there");
    test_.nextPhase();
  }

  LoadTest& test_;
};

class LoadTest::Watchdog : public Tarvo::TimerTask {
 public:
  Watchdog(const std::shared_ptr<Tarvo::TaskScheduler>& scheduler, LoadTest& test)
      : TimerTask(scheduler, TaskPriority::high, "watchdog"), test_(test) {
    scheduleTaskDelay(patience);
  }

 private:
  void taskExecute() override {
    scheduleTaskDelay(patience);
    test_.giveUpIfStuck();
  }

  LoadTest& test_;
};

LoadTest::LoadTest(int port, unsigned int workers, double seconds, const std::vector<File>& files)
    : seconds_(seconds),
      phaseTimer_(std::make_shared<PhaseTimer>(scheduler_, *this)),
      watchdog_(std::make_shared<Watchdog>(scheduler_, *this)) {
  for (const Script& script : {halfRequest(), nonsense(), lateReader()}) {
    addOddClient(port, script);
  }
  for (unsigned int number = 0; number < workers; ++number) {
    workers_.insert(std::make_shared<Worker>(scheduler_, port, number, files, *this));
  }
}

LoadTest::~LoadTest() = default;

bool LoadTest::run() {
  for (const auto& worker : workers_) worker->begin();
  try {
    Tarvo::Platform::doEventLoop();
  } catch (const Over&) {
  }
  return !failed_ && wrong_ == 0 && phase_ == Phase::over;
}

const Measurement& LoadTest::measurement(Phase phase) const {
  return phase == Phase::quiet ? quiet_ : busy_;
}

// The phases.

void LoadTest::finished() {
  if (++finishedWorkers_ < workers_.size()) return;
  if (phase_ != Phase::odd || oddClients_.empty()) nextPhase();
}

void LoadTest::nextPhase() { phaseIs(static_cast<Phase>(static_cast<unsigned>(phase_) + 1)); }

void LoadTest::phaseIs(Phase phase) {
  const Tarvo::Time now = Tarvo::time();
  if (phase_ == Phase::quiet) quiet_.end = now;
  if (phase_ == Phase::busy) busy_.end = now;
  phase_ = phase;
  finishedWorkers_ = 0;
  if (phase == Phase::quiet) quiet_.begin = now;
  if (phase == Phase::busy) busy_.begin = now;
  if (phase == Phase::quiet || phase == Phase::busy) phaseTimer_->scheduleTaskDelay(seconds_);
  if (phase == Phase::odd) phaseTimer_->scheduleTaskDelay(oddPatience);
  if (phase == Phase::count) phaseTimer_->stopTimerTask();
}

void LoadTest::left(Worker& worker) {
  workers_.erase(entryOf(workers_, worker));
  if (workers_.empty()) throw Over();
}

// Answers.

void LoadTest::answered(Phase sentIn, double latency) {
  ++answers_;
  if (sentIn == Phase::quiet) quiet_.latencies.push_back(static_cast<float>(latency));
  if (sentIn == Phase::busy) busy_.latencies.push_back(static_cast<float>(latency));
}

void LoadTest::wrong(const std::string& what) {
  if (++wrong_ <= faultsShown) fmt::print("{}\n", what);
}

bool LoadTest::isCount(std::size_t keys, std::size_t bytes) {
  keyCount_ = 0;
  valueBytes_ = 0;
  for (const auto& worker : workers_) {
    keyCount_ += worker->keys().lastingCount();
    valueBytes_ += worker->keys().lastingBytes();
  }
  return keys == keyCount_ && bytes == valueBytes_;
}

void LoadTest::failed(const std::string& why) {
  failed_ = true;
  fmt::print("{}, after {} answers\n", why, answers_);
  throw Over();
}

void LoadTest::giveUpIfStuck() {
  if (answers_ == answersBefore_) failed("no answer any more");
  answersBefore_ = answers_;
}

// The odd clients.

void LoadTest::addOddClient(int port, const Script& script) {
  oddClients_.insert(std::make_shared<ScriptedClient>(scheduler_, port, script, *this));
}

void LoadTest::finished(ScriptedClient& client) {
  oddities_.push_back(fmt::format("{:<15} {} bytes of answers, dropped after {:.1f} s: {}",
                                  client.name(), client.heardBytes(), client.seconds(),
                                  client.isRight() ? "right" : "WRONG"));
  ++answers_;
  wrong_ += client.isRight() ? 0 : 1;
  oddClients_.erase(entryOf(oddClients_, client));
  if (phase_ == Phase::odd && oddClients_.empty()) nextPhase();
}

}  // namespace kv
