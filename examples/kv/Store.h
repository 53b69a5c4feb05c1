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

#include "Tarvo/HashMix.h"
#include "Tarvo/Platform.h"
#include "Tarvo/TaskTime.h"

namespace kv {

inline std::uint64_t checksum(std::string_view bytes) {
  return Tarvo::Util::hash64(bytes.data(), bytes.size());
}

struct KeyHash {
  using is_transparent = void;
  // Since this may throw, for all that the table knows, it keeps each hash and computes it once.
  std::size_t operator()(std::string_view key) const noexcept(false) { return checksum(key); }
};

class Store {
 public:
  /// How much memory may be taken.
  static constexpr std::size_t sizeLimit = std::size_t{1} << 30;
  static constexpr Tarvo::Time forever = std::numeric_limits<Tarvo::Time>::infinity();

  /// False when there is no room for it; what stood under the key stays then.
  bool set(std::string_view key, std::string_view value, Tarvo::Time expiry = forever) {
    if (memory() + key.size() + value.size() + entryBytes > sizeLimit) return false;
    auto entry = entries_.find(key);
    if (entry == entries_.end()) {
      entry = entries_.try_emplace(std::string(key)).first;
      keyBytes_ += key.size();
    }
    entry->second.checksum = checksum(value);
    assign(entry->second.value, value);
    expiryIs(*entry, expiry);
    return true;
  }

  /// A view that is good until the next change.
  std::optional<std::string_view> get(std::string_view key) const {
    const auto entry = find(key);
    if (entry == entries_.end()) return std::nullopt;
    return entry->second.value;
  }

  bool erase(std::string_view key) {
    const auto entry = entries_.find(key);
    if (entry == entries_.end()) return false;
    const bool alive = isAlive(entry->second);
    remove(entry);
    return alive;
  }

  void clear() {
    expiries_.clear();
    entries_.clear();
    keyBytes_ = valueBytes_ = 0;
  }

  /// When the key's life ends. The setter is false without the key.
  std::optional<Tarvo::Time> expiry(std::string_view key) const {
    const auto entry = find(key);
    if (entry == entries_.end()) return std::nullopt;
    return entry->second.expiry;
  }

  bool expiryIs(std::string_view key, Tarvo::Time expiry) {
    const auto entry = entries_.find(key);
    if (entry == entries_.end() || !isAlive(entry->second)) return false;
    expiryIs(*entry, expiry);
    return true;
  }

  std::size_t keyCount() const { return entries_.size(); }
  std::size_t expiringCount() const { return expiries_.size(); }
  std::size_t valueBytes() const { return valueBytes_; }
  /// Bytes that all of it takes, about.
  std::size_t memory() const { return keyBytes_ + valueBytes_ + entries_.size() * entryBytes; }

  /// Removes one key whose time has come; false when there is none.
  bool expireOne() {
    if (expiries_.empty() || expiries_.begin()->first > Tarvo::time()) return false;
    remove(entries_.find(*expiries_.begin()->second));
    return true;
  }

  /// What a look at values has found.
  struct Digest {
    std::size_t bytes = 0;
    std::size_t corruptValues = 0;
  };
  /// Compares the few values in one slot of the table with their checksums. Nothing behind the last
  /// slot. (When the table grows meanwhile, its values have other slots.)
  std::optional<Digest> digest(std::size_t slot) const {
    if (slot >= entries_.bucket_count()) return std::nullopt;
    Digest found;
    for (auto entry = entries_.begin(slot); entry != entries_.end(slot); ++entry) {
      found.bytes += entry->second.value.size();
      if (checksum(entry->second.value) != entry->second.checksum) ++found.corruptValues;
    }
    return found;
  }

 private:
  static constexpr std::size_t entryBytes = 192;  // beside the key and the value, about

  struct Value {
    std::string value = {};
    std::uint64_t checksum = 0;
    Tarvo::Time expiry = forever;
  };
  using Entries = std::unordered_map<std::string, Value, KeyHash, std::equal_to<>>;
  using Expiry = std::pair<Tarvo::Time, const std::string*>;  // the key in entries_

  static bool isAlive(const Value& value) {
    return value.expiry == forever || value.expiry > Tarvo::time();
  }

  Entries::const_iterator find(std::string_view key) const {
    const auto entry = entries_.find(key);
    return entry == entries_.end() || isAlive(entry->second) ? entry : entries_.end();
  }

  void assign(std::string& to, std::string_view value) {
    valueBytes_ += value.size();
    valueBytes_ -= to.size();
    to = value;
    if (to.capacity() / 2 > to.size()) to.shrink_to_fit();
  }

  void expiryIs(Entries::value_type& entry, Tarvo::Time expiry) {
    if (entry.second.expiry == expiry) return;
    if (entry.second.expiry != forever) expiries_.erase({entry.second.expiry, &entry.first});
    if (expiry != forever) expiries_.emplace(expiry, &entry.first);
    entry.second.expiry = expiry;
  }

  void remove(Entries::iterator entry) {
    keyBytes_ -= entry->first.size();
    valueBytes_ -= entry->second.value.size();
    expiryIs(*entry, forever);
    entries_.erase(entry);
  }

  Entries entries_;
  std::set<Expiry> expiries_;
  std::size_t keyBytes_ = 0;
  std::size_t valueBytes_ = 0;
};

}  // namespace kv

#endif
