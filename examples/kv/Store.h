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
#include "Tarvo/TaskTime.h"

namespace kv {

class Store {
 public:
  /// How much memory may be taken by what is no garbage.
  static constexpr std::size_t sizeLimit = std::size_t{1} << 30;
  static constexpr Tarvo::Time forever = std::numeric_limits<Tarvo::Time>::infinity();

  /// False when there is no room for it; what stood under the key stays then.
  bool set(std::string_view key, std::string_view value, Tarvo::Time expiry = forever);
  /// A view that is good until the next change.
  std::optional<std::string_view> get(std::string_view key) const;
  bool erase(std::string_view key);
  void clear();

  /// When the key's life ends. The setter is false without the key.
  std::optional<Tarvo::Time> expiry(std::string_view key) const;
  bool expiryIs(std::string_view key, Tarvo::Time expiry);

  std::size_t keyCount() const { return entries_.size(); }
  std::size_t expiringCount() const { return expiries_.size(); }
  std::size_t valueBytes() const { return valueBytes_; }
  const Log& log() const { return log_; }
  /// Whether the record is what its key stands for.
  bool holds(const Record& record) const;

  /// Removes one key whose time has come; false when there is none.
  bool expireOne();
  /// One step of giving garbage back: how many bytes were copied, or nothing when no chunk of the
  /// log is worth it.
  std::optional<std::size_t> compactOne();
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

  const Entry* find(std::string_view key) const;
  void expiryIs(Entries::value_type& entry, Tarvo::Time expiry);
  void remove(Entries::iterator entry);

  Log log_;
  Entries entries_;
  std::set<Expiry> expiries_;
  std::size_t valueBytes_ = 0;
  std::size_t freedBytes_ = 0;
  Log::Place compacting_;  // in a wasteful chunk
};

/// What records keep of their value.
std::uint64_t checksum(std::string_view value);

}  // namespace kv

#endif
