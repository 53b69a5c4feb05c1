#ifndef TARVO_EXAMPLES_KV_LOADTEST_H
#define TARVO_EXAMPLES_KV_LOADTEST_H

/// The whole test: a number of workers go through the same phases together, while some odd clients
/// behave badly beside them.

#include <cstddef>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Measurement.h"
#include "OddClient.h"
#include "Tarvo/TaskScheduler.h"
#include "Timer.h"
#include "Worker.h"

namespace kv {

class LoadTest : public Foreman {
 public:
  LoadTest(int port, unsigned int workers, double seconds, const std::vector<File>& files);

  /// Returns when all is over; false when anything was wrong.
  bool run();
  void printSummary() const;

 private:
  void finished() override;
  void answered(Phase sentIn, double latency) override;
  void wrong(const std::string& what) override;
  void failed(const std::string& why) override;
  std::size_t keyCount() const override;
  std::size_t valueBytes() const override;

  void nextPhase();
  void phaseEnds();
  void dropped(OddClient& client);
  void giveUpIfStuck();

  std::shared_ptr<Tarvo::TaskScheduler> scheduler_ = Tarvo::schedulerRootTarvo();
  double seconds_;
  Phase phase_ = Phase::load;
  std::size_t finishedWorkers_ = 0;
  std::size_t answers_ = 0;
  std::size_t answersBefore_ = 0;
  std::size_t wrong_ = 0;
  bool failed_ = false;
  Measurement quiet_;
  Measurement busy_;
  std::vector<std::string> oddities_;
  std::vector<std::shared_ptr<Worker>> workers_;
  std::set<std::shared_ptr<OddClient>> oddClients_;
  std::shared_ptr<Timer> phaseTimer_;
  std::shared_ptr<Timer> watchdog_;
};

}  // namespace kv

#endif
