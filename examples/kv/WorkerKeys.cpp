#include "WorkerKeys.h"

#include <fmt/format.h>

namespace kv {

namespace {

constexpr std::size_t mortalKeys = 8;

double seconds(unsigned int milliseconds) { return milliseconds / 1e3; }

}  // namespace

WorkerKeys::WorkerKeys(unsigned int worker, const std::vector<File>& files) : files_(files) {
  for (std::size_t file = 0; file < files.size(); ++file) {
    keys_.push_back({.name = fmt::format("c{}/{}", worker, files[file].name), .file = file});
  }
  for (std::size_t number = 0; number < mortalKeys; ++number) {
    keys_.push_back(
        {.name = fmt::format("c{}/mortal{}", worker, number), .file = number % files.size()});
  }
}

Sent WorkerKeys::nextVersion(std::size_t key, Tarvo::Time now, unsigned int milliseconds) {
  return {Sent::Verb::set, key, now, ++keys_[key].versions, milliseconds};
}

std::string WorkerKeys::heading(const Key& key, unsigned int version) const {
  return fmt::format("{} version {}\n", key.name, version);
}

std::size_t WorkerKeys::valueSize(const Key& key) const {
  return heading(key, key.set.version).size() + files_[key.file].contents.size();
}

bool WorkerKeys::isValue(const Key& key, std::string_view value) const {
  const std::string begin = heading(key, key.set.version);
  return value.starts_with(begin) && value.substr(begin.size()) == files_[key.file].contents;
}

std::string WorkerKeys::requestText(const Sent& sent) const {
  const Key& key = keys_[sent.key];
  if (sent.verb == Sent::Verb::get) return fmt::format("GET {}\n", key.name);
  if (sent.verb == Sent::Verb::del) return fmt::format("DEL {}\n", key.name);
  const std::string begin = heading(key, sent.version);
  const std::string& contents = files_[key.file].contents;
  const std::string life = sent.milliseconds == 0 ? "" : fmt::format(" {}", sent.milliseconds);
  return fmt::format("SET {} {}{}\n{}{}\n", key.name, begin.size() + contents.size(), life, begin,
                     contents);
}

bool WorkerKeys::mayBeThere(const Key& key, const Sent& sent) {
  if (!key.present) return false;
  return key.set.milliseconds == 0 || sent.time - key.setAnswered < seconds(key.set.milliseconds);
}

bool WorkerKeys::mayBeGone(const Key& key, Tarvo::Time now) {
  if (!key.present) return true;
  return key.set.milliseconds != 0 && now - key.set.time >= seconds(key.set.milliseconds);
}

bool WorkerKeys::isRight(const Sent& sent, std::string_view line, std::string_view value,
                         Tarvo::Time now) {
  Key& key = keys_[sent.key];
  if (sent.verb == Sent::Verb::set) {
    key.present = true;
    key.set = sent;
    key.setAnswered = now;
    return line == "OK";
  }
  if (line == "NONE") {
    const bool right = mayBeGone(key, now);
    key.present = false;
    return right;
  }
  const bool there = mayBeThere(key, sent);
  if (sent.verb == Sent::Verb::del) {
    key.present = false;
    return there && line == "OK";
  }
  return there && line.starts_with("VALUE ") && isValue(key, value);
}

std::size_t WorkerKeys::lastingCount() const {
  std::size_t count = 0;
  for (const Key& key : keys_) count += key.present && key.set.milliseconds == 0 ? 1 : 0;
  return count;
}

std::size_t WorkerKeys::lastingBytes() const {
  std::size_t bytes = 0;
  for (const Key& key : keys_) {
    if (key.present && key.set.milliseconds == 0) bytes += valueSize(key);
  }
  return bytes;
}

}  // namespace kv
