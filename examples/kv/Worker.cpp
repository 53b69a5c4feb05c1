#include "Worker.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace kv {

namespace {

constexpr std::size_t bulkDepth = 16;  // requests on their way at a time
constexpr std::size_t mortalKeys = 8;

}  // namespace

Worker::Worker(std::shared_ptr<Tarvo::TaskScheduler> scheduler, int port, unsigned int number,
               const std::vector<File>& files, Foreman& foreman)
    : Client(std::move(scheduler), port, "worker"),
      number_(number),
      foreman_(foreman),
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

std::string Worker::Key::heading(unsigned int ofVersion) const {
  return fmt::format("{} version {}\n", name, ofVersion);
}

bool Worker::Key::mayBeThere(Tarvo::Time sent) const {
  return present && (life == 0 || sent - setAnswered < life);
}

bool Worker::Key::mayBeGone(Tarvo::Time answered) const {
  return !present || (life != 0 && answered - setSent >= life);
}

bool Worker::Key::isValue(std::string_view value) const {
  const std::string begin = heading(version);
  return value.starts_with(begin) && value.substr(begin.size()) == file->contents;
}

std::size_t Worker::keyCount() const {
  return static_cast<std::size_t>(std::ranges::count_if(keys_, &Key::lasts));
}

std::size_t Worker::valueBytes() const {
  std::size_t bytes = 0;
  for (const Key& key : keys_) {
    if (key.lasts()) bytes += key.heading(key.version).size() + key.file->contents.size();
  }
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
    if (!answer.none) return answer.type == '$' && key.mayBeThere(sent) && key.isValue(answer.text);
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
  const std::string value = key.heading(version) + key.file->contents;
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

void Worker::count() {
  ask({"DBSIZE"}, [this](const Answer& answer, Tarvo::Time) {
    return answer.is(':', std::to_string(foreman_.keyCount()));
  });
  ask({"INFO"}, [this](const Answer& answer, Tarvo::Time) {
    const std::string bytes = fmt::format("\r\nvalue_bytes:{}\r\n", foreman_.valueBytes());
    return answer.type == '$' && answer.text.find(bytes) != std::string_view::npos;
  });
}

void Worker::heard(std::string_view bytes) {
  in_ += bytes;
  std::string_view rest = in_;
  while (const auto answer = parseAnswer(rest)) {
    if (pending_.empty()) return foreman_.failed("an answer that nobody asked for");
    const Pending pending = std::move(pending_.front());
    pending_.pop_front();
    const Tarvo::Time now = Tarvo::time();
    foreman_.answered(pending.phase, now - pending.sent);
    if (!pending.right(*answer, now)) {
      foreman_.wrong(fmt::format("connection {}: wrong answer {}{} to {}", number_, answer->type,
                                 answer->text.substr(0, 80), pending.request));
    }
    rest.remove_prefix(answer->size);
  }
  in_.erase(0, in_.size() - rest.size());
  proceed();
  send();
}

void Worker::closed() { foreman_.failed(fmt::format("connection {} was closed", number_)); }

// The phases.

void Worker::begin(Phase phase) {
  phase_ = phase;
  next_ = 0;
  finished_ = false;
  proceed();
  send();
}

void Worker::proceed() {
  while (next_ < partOfPhase() && pending_.size() < bulkDepth) askForPart(next_++);
  if (!pending_.empty()) return;
  if (phase_ == Phase::quiet || phase_ == Phase::busy) return askMix();
  if (!std::exchange(finished_, true)) foreman_.finished();  // after the last one's the next begins
  if (pending_.empty() && phase_ != Phase::over) get(anyFile());
}

std::size_t Worker::partOfPhase() const {
  switch (phase_) {
    case Phase::load:
      return fileCount_;
    case Phase::verify:
      return keys_.size() + mortalKeys;
    case Phase::switchOff:
    case Phase::switchOn:
    case Phase::count:
      return number_ == 0 ? 1 : 0;
    default:
      return 0;
  }
}

void Worker::askForPart(std::size_t number) {
  const Check ok = [](const Answer& answer, Tarvo::Time) { return answer.is('+', "OK"); };
  switch (phase_) {
    case Phase::load:
      return set(keys_[number]);
    case Phase::verify:
      // At the end the mortal ones are deleted, so that there is no doubt about the count.
      return number < keys_.size() ? get(keys_[number]) : del(keys_[number - mortalKeys]);
    case Phase::switchOff:
      return ask({"CONFIG", "SET", "background", "off"}, ok);
    case Phase::switchOn:
      return ask({"CONFIG", "SET", "background", "on"}, ok);
    default:
      return count();
  }
}

void Worker::askMix() {
  const auto percent = random_() % 100;
  Key& key = anyFile();
  if (percent < 80) return get(key);
  if (percent < 90) return set(key);
  if (percent >= 93) return askMortal();
  del(key);
  get(key);
}

void Worker::askMortal() {
  Key& key = keys_[fileCount_ + random_() % mortalKeys];
  if (random_() % 2 != 0) return get(key);
  const auto milliseconds = static_cast<unsigned int>(1 + random_() % 100);
  const bool lasting = random_() % 8 == 0;
  set(key, lasting ? 0 : milliseconds);
}

}  // namespace kv
