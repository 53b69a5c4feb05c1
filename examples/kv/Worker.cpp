#include "Worker.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <utility>

namespace kv {

using Verb = Sent::Verb;

namespace {

constexpr std::size_t bulkDepth = 16;  // requests on their way at a time

/// The number after the first word of an answer, or the second one after it.
std::size_t numberIn(std::string_view line, int which) {
  for (int word = 0; word < which; ++word) {
    line.remove_prefix(std::min(line.find(' '), line.size() - 1) + 1);
  }
  std::size_t number = 0;
  std::from_chars(line.data(), line.data() + line.size(), number);
  return number;
}

}  // namespace

Worker::Worker(std::shared_ptr<Tarvo::TaskScheduler> scheduler, int port, unsigned int number,
               const std::vector<File>& files, Foreman& foreman)
    : FileDescriptorTask(std::move(scheduler), Tarvo::TaskPriority::normal, "worker"),
      number_(number),
      foreman_(foreman),
      keys_(number, files),
      socket_(port),
      random_(number + 1) {
  taskWatchFdIs(socket_.fd());
}

Worker::~Worker() { taskWatchFdDel(); }

void Worker::begin() {
  ask();
  sendAll();
}

void Worker::taskExecuteReadable() {
  const bool open = socket_.takeIn(in_);
  while (takeAnswer()) {
  }
  if (!open) return foreman_.failed(fmt::format("connection {} was closed", number_));
  ask();
  if (foreman_.phase() == Phase::over && pending_.empty()) return foreman_.left(*this);
  sendAll();
}

void Worker::taskExecuteWritable() { sendAll(); }

void Worker::sendAll() {
  if (!socket_.flush()) taskWatchWritableIs(true);
}

// Answers.

bool Worker::takeAnswer() {
  const std::size_t end = in_.find('\n');
  if (end == std::string::npos || pending_.empty()) return false;
  const std::string_view line = std::string_view(in_).substr(0, end);
  std::size_t size = end + 1;
  std::string_view value;
  if (line.starts_with("VALUE ")) {
    const std::size_t length = numberIn(line, 1);
    if (in_.size() - size < length + 1) return false;
    value = std::string_view(in_).substr(size, length);
    size += length + 1;
  }
  const Pending pending = std::move(pending_.front());
  pending_.pop_front();
  const Tarvo::Time now = Tarvo::time();
  foreman_.answered(pending.phase, now - pending.time);
  if (!isRight(pending, line, value, now) || in_[size - 1] != '\n') {
    foreman_.wrong(fmt::format("connection {}: wrong answer \"{}\" to {}", number_, line,
                               pending.sent ? keys_.name(pending.sent->key) : pending.control));
  }
  in_.erase(0, size);
  return true;
}

bool Worker::isRight(const Pending& pending, std::string_view line, std::string_view value,
                     Tarvo::Time now) {
  if (pending.sent) return keys_.isRight(*pending.sent, line, value, now);
  if (!pending.control.starts_with("COUNT")) return line == "OK";
  return line.starts_with("COUNT ") && foreman_.isCount(numberIn(line, 1), numberIn(line, 2));
}

// Requests.

void Worker::ask() {
  while (askNext()) {
  }
}

/// True when it asked for something and more may follow at once.
bool Worker::askNext() {
  if (foreman_.phase() != phase_) {
    phase_ = foreman_.phase();
    next_ = 0;
    finished_ = false;
  }
  if (phase_ == Phase::over) return false;
  if (phase_ == Phase::quiet || phase_ == Phase::busy) {
    if (pending_.empty()) askMix();
    return false;
  }
  if (next_ < partOfPhase()) {
    if (pending_.size() >= bulkDepth) return false;
    askForPart(next_++);
    return true;
  }
  if (!pending_.empty()) return false;
  if (!std::exchange(finished_, true)) {
    foreman_.finished();  // perhaps the last one: the phase may be another now
    return true;
  }
  askForKey({Verb::get, anyFile(), Tarvo::time()});
  return false;
}

std::size_t Worker::partOfPhase() const {
  switch (phase_) {
    case Phase::load:
      return keys_.fileCount();
    case Phase::verify:
      return 2 * keys_.size() - keys_.fileCount();
    case Phase::switchOff:
    case Phase::switchOn:
    case Phase::count:
      return number_ == 0 ? 1 : 0;
    default:
      return 0;
  }
}

void Worker::askForPart(std::size_t number) {
  const Tarvo::Time now = Tarvo::time();
  switch (phase_) {
    case Phase::load:
      return askForKey(keys_.nextVersion(number, now));
    case Phase::verify:
      // At the end the mortal ones are deleted, so that there is no doubt about the count.
      if (number < keys_.size()) return askForKey({Verb::get, number, now});
      return askForKey({Verb::del, number - keys_.size() + keys_.fileCount(), now});
    case Phase::switchOff:
      return askControl("BACKGROUND off\n");
    case Phase::switchOn:
      return askControl("BACKGROUND on\n");
    default:
      return askControl("COUNT\n");
  }
}

void Worker::askMix() {
  const Tarvo::Time now = Tarvo::time();
  const auto percent = random_() % 100;
  if (percent < 80) return askForKey({Verb::get, anyFile(), now});
  if (percent < 90) return askForKey(keys_.nextVersion(anyFile(), now));
  if (percent >= 93) return askMortal();
  const std::size_t key = anyFile();
  askForKey({Verb::del, key, now});
  askForKey({Verb::get, key, now});
}

void Worker::askMortal() {
  const Tarvo::Time now = Tarvo::time();
  const std::size_t key = keys_.fileCount() + random_() % (keys_.size() - keys_.fileCount());
  if (random_() % 2 != 0) return askForKey({Verb::get, key, now});
  const auto milliseconds = static_cast<unsigned int>(1 + random_() % 100);
  const bool lasting = random_() % 8 == 0;
  askForKey(keys_.nextVersion(key, now, lasting ? 0 : milliseconds));
}

void Worker::askForKey(Sent sent) {
  socket_.put(keys_.requestText(sent));
  pending_.push_back({phase_, sent.time, sent, {}});
}

void Worker::askControl(const char* text) {
  socket_.put(text);
  pending_.push_back({phase_, Tarvo::time(), std::nullopt, text});
}

}  // namespace kv
