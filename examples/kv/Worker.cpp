#include "Worker.h"

#include <algorithm>

namespace kv {

namespace {

constexpr std::size_t bulkDepth = 16;  // requests on their way at a time
constexpr std::size_t mortalKeys = 8;
constexpr std::size_t faultsShown = 5;

}  // namespace

Worker::Worker(std::shared_ptr<Tarvo::TaskScheduler> scheduler, int port, unsigned int number,
               const std::vector<File>& files, Score& score)
    : Client(std::move(scheduler), port, "worker"),
      number_(number),
      score_(score),
      fileCount_(files.size()),
      random_(number + 1) {
  for (const File& file : files) {
    keys_.push_back({fmt::format("c{}/{}", number, file.name), &file});
  }
  for (std::size_t mortal = 0; mortal < mortalKeys; ++mortal) {
    keys_.push_back({fmt::format("c{}/mortal{}", number, mortal), &files[mortal % files.size()]});
  }
}

// What a key stands for.

std::string Worker::Key::value(unsigned int ofVersion) const {
  return fmt::format("{} version {}\n{}", name, ofVersion, file->contents);
}

bool Worker::Key::mayBeThere(Tarvo::Time sent) const {
  return present && (life == 0 || sent - setAnswered < life);
}

bool Worker::Key::mayBeGone(Tarvo::Time answered) const {
  return !present || (life != 0 && answered - setSent >= life);
}

std::size_t Worker::keyCount() const {
  return static_cast<std::size_t>(std::ranges::count_if(keys_, &Key::lasts));
}

std::size_t Worker::valueBytes() const {
  std::size_t bytes = 0;
  for (const Key& key : keys_) bytes += key.lasts() ? key.value(key.version).size() : 0;
  return bytes;
}

// Requests and what their answers must be.

void Worker::ask(std::initializer_list<std::string_view> words, Check right) {
  Writer(unsent_).request(words);
  const std::string_view subject = words.size() > 1 ? words.begin()[1] : "";
  pending_.push_back(
      {phase_, Tarvo::time(), fmt::format("{} {}", *words.begin(), subject), std::move(right)});
}

void Worker::get(Key& key) {
  ask({"GET", key.name}, [&key, sent = Tarvo::time()](const Answer& answer, Tarvo::Time now) {
    if (!answer.none) return key.mayBeThere(sent) && answer.is('$', key.value(key.version));
    const bool right = key.mayBeGone(now);
    key.present = false;
    return right;
  });
}

void Worker::set(Key& key, unsigned int milliseconds) {
  const unsigned int version = ++key.versions;
  Check right = [&key, version, milliseconds, sent = Tarvo::time()](const Answer& answer,
                                                                    Tarvo::Time now) {
    key.present = true;
    key.version = version;
    key.life = milliseconds / 1e3;
    key.setSent = sent;
    key.setAnswered = now;
    return answer.is('+', "OK");
  };
  const std::string value = key.value(version);
  if (milliseconds == 0) return ask({"SET", key.name, value}, std::move(right));
  ask({"SET", key.name, value, "PX", std::to_string(milliseconds)}, std::move(right));
}

void Worker::del(Key& key) {
  ask({"DEL", key.name}, [&key, sent = Tarvo::time()](const Answer& answer, Tarvo::Time now) {
    const bool there = answer.is(':', "1");
    const bool right = there ? key.mayBeThere(sent) : answer.is(':', "0") && key.mayBeGone(now);
    key.present = false;
    return right;
  });
}

// Answers.

void Worker::heard(std::string_view bytes) {
  in_ += bytes;
  std::string_view rest = in_;
  while (const auto answer = parseAnswer(rest)) {
    answered(*answer);
    rest.remove_prefix(answer->size);
  }
  in_.erase(0, in_.size() - rest.size());
  proceed();
}

void Worker::answered(const Answer& answer) {
  if (pending_.empty()) failWith("an answer that nobody asked for");
  const Pending pending = std::move(pending_.front());
  pending_.pop_front();
  const Tarvo::Time now = Tarvo::time();
  ++score_.answers;
  if (pending.phase == Phase::mix) {
    score_.latencies.push_back(static_cast<float>(now - pending.sent));
  }
  if (pending.right(answer, now) || ++score_.wrong > faultsShown) return;
  fmt::print("connection {}: wrong answer {}{} to {}\n", number_, answer.type,
             answer.text.substr(0, 80), pending.request);
}

void Worker::closed() { failWith("connection lost"); }

// The phases.

void Worker::phaseIs(Phase phase) {
  phase_ = phase;
  next_ = 0;
  finished_ = false;
  proceed();
}

void Worker::proceed() {
  while (next_ < partOfPhase() && pending_.size() < bulkDepth) askForPart(next_++);
  if (pending_.empty() && phase_ == Phase::mix) askMix();
  finished_ = finished_ || pending_.empty();
  if (pending_.empty() && phase_ != Phase::rest) get(anyFile());
  send();
}

std::size_t Worker::partOfPhase() const {
  if (phase_ == Phase::load) return fileCount_;
  return phase_ == Phase::verify ? keys_.size() + mortalKeys : 0;
}

void Worker::askForPart(std::size_t number) {
  if (phase_ == Phase::load) return set(keys_[number]);
  // At the end the mortal ones are deleted, so that there is no doubt about the count.
  number < keys_.size() ? get(keys_[number]) : del(keys_[number - mortalKeys]);
}

void Worker::askMix() {
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

}  // namespace kv
