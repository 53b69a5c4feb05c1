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

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <initializer_list>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "Resp.h"
#include "Wire.h"

namespace kv {

constexpr std::size_t bulkDepth = 16;  // requests on their way at a time
constexpr std::size_t mortalKeys = 8;
constexpr std::size_t faultsShown = 5;

struct File {
  std::string name;
  std::string contents;
};

/// What all workers have found out.
struct Score {
  std::size_t answers = 0;
  std::size_t wrong = 0;
  std::vector<float> latencies = {};  // of the mix, in seconds
};

class Worker : public Wire {
 public:
  /// Whoever has finished its part goes on reading its keys, until it is to rest.
  enum class Phase : std::uint8_t {
    load,    // each file once
    mix,     // of requests, without end
    verify,  // each key once; after it nobody writes
    read,    // one key after the other
    rest,
  };
  struct Times {
    Tarvo::Time sent = 0;
    Tarvo::Time answered = 0;
  };
  using Check = std::function<bool(const Answer&, const Times&)>;

  Worker(std::shared_ptr<Tarvo::TaskScheduler> scheduler, int port, unsigned int number,
         const std::vector<File>& files, Score& score)
      : Wire(std::move(scheduler), Tarvo::TaskPriority::normal, "worker", connectTo(port)),
        number_(number),
        score_(score),
        fileCount_(files.size()),
        random_(number + 1) {
    for (std::size_t key = 0; key < fileCount_ + mortalKeys; ++key) {
      const File& file = files[key % fileCount_];
      keys_.push_back({fmt::format("c{}/{}/{}", number, key, file.name), &file});
    }
  }

  void phaseIs(Phase phase) {
    phase_ = phase;
    next_ = 0;
    finished_ = false;
    proceed();
  }

  /// Whether all of the phase is asked for and answered.
  bool finished() const { return finished_; }
  /// Sends a request, whose answer must pass the check.
  void ask(std::initializer_list<std::string_view> words, Check right) {
    Writer(out_).request(words);
    const std::string_view subject = words.size() > 1 ? words.begin()[1] : "";
    pending_.push_back(
        {phase_, Tarvo::time(), fmt::format("{} {}", *words.begin(), subject), std::move(right)});
  }

  /// Calls `take` with each value that stands under a key without end.
  template <typename Take>
  void forEachValue(const Take& take) const {
    for (const Key& key : keys_) {
      if (key.present && key.life == 0) take(key.value(key.version));
    }
  }

 private:
  struct Key {
    std::string name;
    const File* file;
    unsigned int versions = 0;  // given out so far
    // As the last answer has it:
    bool present = false;
    unsigned int version = 0;
    double life = 0;  // 0 for ever
    Times set = {};

    std::string value(unsigned int ofVersion) const {
      return fmt::format("{} version {}\n{}", name, ofVersion, file->contents);
    }
    bool mayBeThere(const Times& now) const {
      return present && (life == 0 || now.sent - set.answered < life);
    }
    bool mayBeGone(const Times& now) const {
      return !present || (life != 0 && now.answered - set.sent >= life);
    }
  };
  struct Pending {
    Phase phase;
    Tarvo::Time sent;
    std::string request;  // the beginning of it
    Check right;
  };

  void taskExecuteReadable() override {
    receive();
    if (otherEnd() != OtherEnd::open) failWith("connection lost");
    std::string_view rest = in_;
    while (const auto answer = parseAnswer(rest)) {
      answered(*answer);
      rest.remove_prefix(answer->size);
    }
    in_.erase(0, in_.size() - rest.size());
    proceed();
  }

  void taskExecuteWritable() override { flush(); }

  void answered(const Answer& answer) {
    if (pending_.empty()) failWith("an answer that nobody asked for");
    const Pending pending = std::move(pending_.front());
    pending_.pop_front();
    const Times times{pending.sent, Tarvo::time()};
    ++score_.answers;
    if (pending.phase == Phase::mix) {
      score_.latencies.push_back(static_cast<float>(times.answered - times.sent));
    }
    if (pending.right(answer, times) || ++score_.wrong > faultsShown) return;
    fmt::print("connection {}: wrong answer {}{} to {}\n", number_, answer.type,
               answer.text.substr(0, 80), pending.request);
  }

  void proceed() {
    while (next_ < partOfPhase() && pending_.size() < bulkDepth) askForPart(next_++);
    if (pending_.empty() && phase_ == Phase::mix) askMix();
    finished_ = finished_ || pending_.empty();
    if (pending_.empty() && phase_ != Phase::rest) get(anyFile());
    flush();
  }

  std::size_t partOfPhase() const {
    if (phase_ == Phase::load) return fileCount_;
    return phase_ == Phase::verify ? keys_.size() + mortalKeys : 0;
  }

  void askForPart(std::size_t number) {
    if (phase_ == Phase::load) return set(keys_[number]);
    // At the end the mortal ones are deleted, so that there is no doubt about the count.
    number < keys_.size() ? get(keys_[number]) : del(keys_[number - mortalKeys]);
  }

  void askMix() {
    const auto percent = random_() % 100;
    Key& key = anyFile();
    Key& mortal = keys_[fileCount_ + random_() % mortalKeys];
    if (percent < 80) return get(key);
    if (percent < 90) return set(key);
    if (percent < 93) {
      del(key);
      return get(key);
    }
    if (percent < 96) return get(mortal);
    set(mortal, random_() % 8 == 0 ? 0 : static_cast<unsigned int>(1 + random_() % 100));
  }

  void get(Key& key) {
    ask({"GET", key.name}, [&key](const Answer& answer, const Times& times) {
      if (!answer.none) return key.mayBeThere(times) && answer.is('$', key.value(key.version));
      const bool right = key.mayBeGone(times);
      key.present = false;
      return right;
    });
  }

  void set(Key& key, unsigned int milliseconds = 0) {
    const unsigned int version = ++key.versions;
    Check right = [&key, version, milliseconds](const Answer& answer, const Times& times) {
      key.present = true;
      key.version = version;
      key.life = milliseconds / 1e3;
      key.set = times;
      return answer.is('+', "OK");
    };
    const std::string value = key.value(version);
    if (milliseconds == 0) return ask({"SET", key.name, value}, std::move(right));
    ask({"SET", key.name, value, "PX", std::to_string(milliseconds)}, std::move(right));
  }

  void del(Key& key) {
    ask({"DEL", key.name}, [&key](const Answer& answer, const Times& times) {
      const bool there = answer.is(':', "1");
      const bool right =
          there ? key.mayBeThere(times) : answer.is(':', "0") && key.mayBeGone(times);
      key.present = false;
      return right;
    });
  }

  Key& anyFile() { return keys_[random_() % fileCount_]; }

  unsigned int number_;
  Score& score_;
  std::size_t fileCount_;
  std::vector<Key> keys_;  // those of files come first, then those whose values may end
  std::deque<Pending> pending_;
  Phase phase_ = Phase::rest;
  std::size_t next_ = 0;   // of its part of the phase
  bool finished_ = false;  // with its part of the phase
  std::minstd_rand random_;
};

}  // namespace kv

#endif
