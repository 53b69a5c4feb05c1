#ifndef TARVO_EXAMPLES_KV_STORE_H
#define TARVO_EXAMPLES_KV_STORE_H

/// The data of the service: values under keys, each perhaps with an end to its life, on the library
/// clock. A value whose time has come is never given out, though it takes memory until somebody
/// expires it. What costs time is done in single steps, for tasks that share their thread.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "Log.h"
#include "Tarvo/HashMix.h"
#include "Tarvo/Platform.h"
#include "Tarvo/TaskTime.h"

namespace kv {

/// What records keep of their value.
inline std::uint64_t checksum(std::string_view value) {
  return Tarvo::Util::hash64(value.data(), value.size());
}

class Store {
 public:
  /// How much memory may be taken by what is no garbage.
  static constexpr std::size_t sizeLimit = std::size_t{1} << 30;
  static constexpr Tarvo::Time forever = std::numeric_limits<Tarvo::Time>::infinity();

  /// False when there is no room for it; what stood under the key stays then.
  bool set(std::string_view key, std::string_view value, Tarvo::Time expiry = forever) {
    const std::size_t taken = log_.bytes() - log_.garbageBytes() + entries_.size() * entryBytes;
    if (taken + key.size() + value.size() > sizeLimit) return false;
    const Record* record = log_.append(key, value, checksum(value));
    auto entry = entries_.find(key);
    if (entry == entries_.end()) {
      entry = entries_.try_emplace(std::string(key)).first;
    } else {
      valueBytes_ -= entry->second.record->valueSize;
      log_.discard(*entry->second.record);
    }
    valueBytes_ += value.size();
    entry->second.record = record;
    expiryIs(*entry, expiry);
    return true;
  }

  /// A view that is good until the next change.
  std::optional<std::string_view> get(std::string_view key) const {
    const Entry* entry = find(key);
    if (entry == nullptr) return std::nullopt;
    return entry->record->value();
  }

  bool erase(std::string_view key) {
    const bool alive = find(key) != nullptr;
    if (const auto entry = entries_.find(key); entry != entries_.end()) remove(entry);
    return alive;
  }

  void clear() {
    expiries_.clear();
    entries_.clear();
    log_.clear();
    valueBytes_ = 0;
  }

  /// When the key's life ends. The setter is false without the key.
  std::optional<Tarvo::Time> expiry(std::string_view key) const {
    const Entry* entry = find(key);
    if (entry == nullptr) return std::nullopt;
    return entry->expiry;
  }

  bool expiryIs(std::string_view key, Tarvo::Time expiry) {
    if (find(key) == nullptr) return false;
    expiryIs(*entries_.find(key), expiry);
    return true;
  }

  std::size_t keyCount() const { return entries_.size(); }
  std::size_t expiringCount() const { return expiries_.size(); }
  std::size_t valueBytes() const { return valueBytes_; }
  const Log& log() const { return log_; }
  /// Whether the record is what its key stands for.
  bool holds(const Record& record) const {
    const auto entry = entries_.find(record.key());
    return entry != entries_.end() && entry->second.record == &record;
  }

  /// Removes one key whose time has come; false when there is none.
  bool expireOne() {
    if (expiries_.empty() || expiries_.begin()->first > Tarvo::time()) return false;
    remove(entries_.find(*expiries_.begin()->second));
    return true;
  }

  /// One step of giving garbage back: how many bytes were copied, or nothing when no chunk of the
  /// log is worth it.
  std::optional<std::size_t> compactOne() {
    const auto chunk = log_.wastefulChunk();
    if (!chunk) return std::nullopt;
    if (compacting_.chunk != *chunk) compacting_ = {*chunk, 0};
    const Record* record = log_.next(compacting_);
    if (record == nullptr || record->chunk != *chunk) {
      const std::size_t before = log_.bytes();
      log_.release(*chunk);
      freedBytes_ += before - log_.bytes();
      compacting_ = {};
      return 0;
    }
    if (!holds(*record)) return 0;
    entries_.find(record->key())->second.record =
        log_.append(record->key(), record->value(), record->checksum);
    log_.discard(*record);
    return record->size();
  }

  std::size_t freedBytes() const { return freedBytes_; }

 private:
  static constexpr std::size_t entryBytes = 128;  // beside the record, about

  struct Entry {
    const Record* record = nullptr;
    Tarvo::Time expiry = forever;
  };
  struct Hash : std::hash<std::string_view> {
    using is_transparent = void;
  };
  using Entries = std::unordered_map<std::string, Entry, Hash, std::equal_to<>>;
  using Expiry = std::pair<Tarvo::Time, const std::string*>;  // the key in entries_

  const Entry* find(std::string_view key) const {
    const auto entry = entries_.find(key);
    if (entry == entries_.end()) return nullptr;
    const Tarvo::Time expiry = entry->second.expiry;
    return expiry != forever && expiry <= Tarvo::time() ? nullptr : &entry->second;
  }

  void expiryIs(Entries::value_type& entry, Tarvo::Time expiry) {
    if (entry.second.expiry == expiry) return;
    if (entry.second.expiry != forever) expiries_.erase({entry.second.expiry, &entry.first});
    if (expiry != forever) expiries_.emplace(expiry, &entry.first);
    entry.second.expiry = expiry;
  }

  void remove(Entries::iterator entry) {
    valueBytes_ -= entry->second.record->valueSize;
    log_.discard(*entry->second.record);
    expiryIs(*entry, forever);
    entries_.erase(entry);
  }

  Log log_;
  Entries entries_;
  std::set<Expiry> expiries_;
  std::size_t valueBytes_ = 0;
  std::size_t freedBytes_ = 0;
  Log::Place compacting_;  // in a wasteful chunk
};

}  // namespace kv

#endif
