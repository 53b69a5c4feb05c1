#ifndef TARVO_EXAMPLES_KV_WORKER_H
#define TARVO_EXAMPLES_KV_WORKER_H

#include <cstddef>
#include <deque>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "Phase.h"
#include "Project.h"
#include "Socket.h"
#include "Tarvo/TaskScheduler.h"
#include "WorkerKeys.h"

namespace kv {

class Worker;

/// Whom workers report to.
class Foreman {
 public:
  virtual ~Foreman() = default;
  virtual Phase phase() const = 0;
  /// A worker has done its part of the phase.
  virtual void finished() = 0;
  virtual void answered(Phase sentIn, double latency) = 0;
  /// An answer was not right.
  virtual void wrong(const std::string& what) = 0;
  /// Whether so many keys and bytes are what all workers together have stored.
  virtual bool isCount(std::size_t keys, std::size_t bytes) = 0;
  /// The worker has got all its answers after the last phase.
  virtual void left(Worker& worker) = 0;
  virtual void failed(const std::string& why) = 0;
};

/// One connection that sends requests, as the phase has it, and checks every answer.
class Worker : public Tarvo::FileDescriptorTask {
 public:
  Worker(std::shared_ptr<Tarvo::TaskScheduler> scheduler, int port, unsigned int number,
         const std::vector<File>& files, Foreman& foreman);
  ~Worker() override;

  void begin();
  const WorkerKeys& keys() const { return keys_; }

 private:
  struct Pending {
    Phase phase;
    Tarvo::Time time;
    std::optional<Sent> sent;  // nothing for a request that concerns no key
    std::string control;       // that request
  };

  void taskExecuteReadable() override;
  void taskExecuteWritable() override;

  bool takeAnswer();
  bool isRight(const Pending& pending, std::string_view line, std::string_view value,
               Tarvo::Time now);
  void ask();
  bool askNext();
  std::size_t partOfPhase() const;
  void askForPart(std::size_t number);
  void askMix();
  void askMortal();
  void askForKey(Sent sent);
  void askControl(const char* text);
  void sendAll();
  std::size_t anyFile() { return random_() % keys_.fileCount(); }

  unsigned int number_;
  Foreman& foreman_;
  WorkerKeys keys_;
  Socket socket_;
  std::string in_;
  std::deque<Pending> pending_;
  Phase phase_ = Phase::load;
  std::size_t next_ = 0;   // of its part of the phase
  bool finished_ = false;  // with its part of the phase
  std::minstd_rand random_;
};

}  // namespace kv

#endif
