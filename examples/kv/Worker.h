#ifndef TARVO_EXAMPLES_KV_WORKER_H
#define TARVO_EXAMPLES_KV_WORKER_H

/// One connection that sends requests and checks every answer.
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

/// What all workers have found out.
struct Score {
  std::size_t answers = 0;
  std::size_t wrong = 0;
  std::vector<float> latencies = {};  // of the mix, in seconds
};

class Worker : public Client {
 public:
  /// Whoever has finished its part goes on reading its keys, until it is to rest.
  enum class Phase : std::uint8_t {
    load,    // each file once
    mix,     // of requests, without end
    verify,  // each key once; after it nobody writes
    read,    // one key after the other
    rest,
  };
  using Check = std::function<bool(const Answer&, Tarvo::Time now)>;

  Worker(std::shared_ptr<Tarvo::TaskScheduler> scheduler, int port, unsigned int number,
         const std::vector<File>& files, Score& score);

  void phaseIs(Phase phase);
  /// Whether all of the phase is asked for and answered.
  bool finished() const { return finished_; }
  /// Sends a request, whose answer must pass the check.
  void ask(std::initializer_list<std::string_view> words, Check right);

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

    std::string value(unsigned int ofVersion) const;
    bool lasts() const { return present && life == 0; }
    bool mayBeThere(Tarvo::Time sent) const;
    bool mayBeGone(Tarvo::Time answered) const;
  };
  struct Pending {
    Phase phase;
    Tarvo::Time sent;
    std::string request;  // the beginning of it
    Check right;
  };

  void heard(std::string_view bytes) override;
  void closed() override;
  void answered(const Answer& answer);

  void proceed();
  std::size_t partOfPhase() const;
  void askForPart(std::size_t number);
  void askMix();
  void get(Key& key);
  void set(Key& key, unsigned int milliseconds = 0);
  void del(Key& key);
  Key& anyFile() { return keys_[random_() % fileCount_]; }

  unsigned int number_;
  Score& score_;
  std::size_t fileCount_;
  std::vector<Key> keys_;  // those of files come first, then those whose values may end
  std::string in_;
  std::deque<Pending> pending_;
  Phase phase_ = Phase::rest;
  std::size_t next_ = 0;   // of its part of the phase
  bool finished_ = false;  // with its part of the phase
  std::minstd_rand random_;
};

}  // namespace kv

#endif
