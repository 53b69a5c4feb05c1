#ifndef TARVO_EXAMPLES_KV_LOADTEST_H
#define TARVO_EXAMPLES_KV_LOADTEST_H

/// The whole test: a number of workers go through the same phases together, while some odd clients
/// behave badly beside them.

#include <cstddef>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Phase.h"
#include "Project.h"
#include "ScriptedClient.h"
#include "Tarvo/TaskScheduler.h"
#include "Worker.h"

namespace kv {

class LoadTest : public Foreman, public Audience {
 public:
  LoadTest(int port, unsigned int workers, double seconds, const std::vector<File>& files);
  ~LoadTest() override;

  /// Returns when all is over; false when anything was wrong.
  bool run();

  const Measurement& measurement(Phase phase) const;
  std::size_t answerCount() const { return answers_; }
  std::size_t wrongCount() const { return wrong_; }
  std::size_t keyCount() const { return keyCount_; }
  std::size_t valueBytes() const { return valueBytes_; }
  /// What is to be said about each of the odd clients.
  const std::vector<std::string>& oddities() const { return oddities_; }

 private:
  class PhaseTimer;
  class Watchdog;

  Phase phase() const override { return phase_; }
  void finished() override;
  void answered(Phase sentIn, double latency) override;
  void wrong(const std::string& what) override;
  bool isCount(std::size_t keys, std::size_t bytes) override;
  void left(Worker& worker) override;
  void failed(const std::string& why) override;
  void finished(ScriptedClient& client) override;

  void addOddClient(int port, const Script& script);
  void nextPhase();
  void phaseIs(Phase phase);
  void giveUpIfStuck();

  std::shared_ptr<Tarvo::TaskScheduler> scheduler_ = Tarvo::schedulerRootTarvo();
  double seconds_;
  Phase phase_ = Phase::load;
  std::size_t finishedWorkers_ = 0;
  std::size_t answers_ = 0;
  std::size_t answersBefore_ = 0;
  std::size_t wrong_ = 0;
  std::size_t keyCount_ = 0;
  std::size_t valueBytes_ = 0;
  bool failed_ = false;
  Measurement quiet_;
  Measurement busy_;
  std::vector<std::string> oddities_;
  std::set<std::shared_ptr<Worker>> workers_;
  std::set<std::shared_ptr<ScriptedClient>> oddClients_;
  std::shared_ptr<PhaseTimer> phaseTimer_;
  std::shared_ptr<Watchdog> watchdog_;
};

}  // namespace kv

#endif
