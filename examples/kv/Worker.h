#ifndef TARVO_EXAMPLES_KV_WORKER_H
#define TARVO_EXAMPLES_KV_WORKER_H

/// One connection that sends requests, as the phase has it, and checks every answer.
///
/// The keys of a worker are used by nobody else, so it knows for each answer whether it is right,
/// byte for byte. Each file has a key. Its value tells the key, a version and the file's contents.
/// A few keys more are given values with an end to their life. When such a value ends nobody knows
/// exactly; but it is there as long as its life, counted from the answer to the SET, has not passed
/// when the GET is sent, and gone only if its life, counted from the sending of the SET, has passed
/// when the answer to the GET has come.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <initializer_list>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "Client.h"
#include "Resp.h"

namespace kv {

struct File {
  std::string name;  // fit for a key, and its own
  std::string contents;
};

/// What the workers are doing. Whoever has finished its part of a phase goes on reading its keys
/// until the others have too.
enum class Phase : std::uint8_t {
  load,       // each file once
  switchOff,  // the background work
  quiet,      // a mix of requests, for some time, without background work
  switchOn,
  busy,    // the same mix, with it
  verify,  // each key once
  odd,     // until the odd clients are through
  count,   // what the service says it has
  over,    // until the last answers are there
};

/// Whom workers report to.
class Foreman {
 public:
  virtual ~Foreman() = default;
  /// A worker has done its part of the phase.
  virtual void finished() = 0;
  virtual void answered(Phase sentIn, double latency) = 0;
  /// An answer was not right.
  virtual void wrong(const std::string& what) = 0;
  virtual void failed(const std::string& why) = 0;
  /// What all workers together have stored.
  virtual std::size_t keyCount() const = 0;
  virtual std::size_t valueBytes() const = 0;
};

class Worker : public Client {
 public:
  Worker(std::shared_ptr<Tarvo::TaskScheduler> scheduler, int port, unsigned int number,
         const std::vector<File>& files, Foreman& foreman);

  void begin(Phase phase);

  /// How many keys have a value without end, and the bytes of those values.
  std::size_t keyCount() const;
  std::size_t valueBytes() const;

 private:
  struct Key {
    std::string name;
    const File* file;
    unsigned int versions = 0;  // given out so far
    // As the last answer has it:
    bool present = false;
    unsigned int version = 0;
    double life = 0;  // 0 for ever
    Tarvo::Time setSent = 0;
    Tarvo::Time setAnswered = 0;

    std::string heading(unsigned int ofVersion) const;
    bool lasts() const { return present && life == 0; }
    bool mayBeThere(Tarvo::Time sent) const;
    bool mayBeGone(Tarvo::Time answered) const;
    bool isValue(std::string_view value) const;
  };
  using Check = std::function<bool(const Answer&, Tarvo::Time now)>;
  struct Pending {
    Phase phase;
    Tarvo::Time sent;
    std::string request;  // the beginning of it
    Check right;
  };

  void heard(std::string_view bytes) override;
  void closed() override;

  void proceed();
  std::size_t partOfPhase() const;
  void askForPart(std::size_t number);
  void askMix();
  void askMortal();
  void ask(std::initializer_list<std::string_view> words, Check right);
  void get(Key& key);
  void set(Key& key, unsigned int milliseconds = 0);
  void del(Key& key);
  void count();
  Key& anyFile() { return keys_[random_() % fileCount_]; }

  unsigned int number_;
  Foreman& foreman_;
  std::size_t fileCount_;
  std::vector<Key> keys_;  // those of files come first, then those whose values may end
  std::string in_;
  std::deque<Pending> pending_;
  Phase phase_ = Phase::over;
  std::size_t next_ = 0;   // of its part of the phase
  bool finished_ = false;  // with its part of the phase
  std::minstd_rand random_;
};

}  // namespace kv

#endif
