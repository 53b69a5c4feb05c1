#include "Store.h"

#include "Tarvo/HashMix.h"
#include "Tarvo/Platform.h"

namespace kv {

std::uint64_t checksum(std::string_view value) {
  return Tarvo::Util::hash64(value.data(), value.size());
}

bool Store::set(std::string_view key, std::string_view value, Tarvo::Time expiry) {
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

const Store::Entry* Store::find(std::string_view key) const {
  const auto entry = entries_.find(key);
  if (entry == entries_.end()) return nullptr;
  const Tarvo::Time expiry = entry->second.expiry;
  return expiry != forever && expiry <= Tarvo::time() ? nullptr : &entry->second;
}

std::optional<std::string_view> Store::get(std::string_view key) const {
  const Entry* entry = find(key);
  if (entry == nullptr) return std::nullopt;
  return entry->record->value();
}

bool Store::erase(std::string_view key) {
  const bool alive = find(key) != nullptr;
  if (const auto entry = entries_.find(key); entry != entries_.end()) remove(entry);
  return alive;
}

void Store::remove(Entries::iterator entry) {
  valueBytes_ -= entry->second.record->valueSize;
  log_.discard(*entry->second.record);
  expiryIs(*entry, forever);
  entries_.erase(entry);
}

void Store::clear() {
  expiries_.clear();
  entries_.clear();
  log_.clear();
  valueBytes_ = 0;
}

std::optional<Tarvo::Time> Store::expiry(std::string_view key) const {
  const Entry* entry = find(key);
  if (entry == nullptr) return std::nullopt;
  return entry->expiry;
}

bool Store::expiryIs(std::string_view key, Tarvo::Time expiry) {
  if (find(key) == nullptr) return false;
  expiryIs(*entries_.find(key), expiry);
  return true;
}

void Store::expiryIs(Entries::value_type& entry, Tarvo::Time expiry) {
  if (entry.second.expiry == expiry) return;
  if (entry.second.expiry != forever) expiries_.erase({entry.second.expiry, &entry.first});
  if (expiry != forever) expiries_.emplace(expiry, &entry.first);
  entry.second.expiry = expiry;
}

bool Store::holds(const Record& record) const {
  const auto entry = entries_.find(record.key());
  return entry != entries_.end() && entry->second.record == &record;
}

bool Store::expireOne() {
  if (expiries_.empty() || expiries_.begin()->first > Tarvo::time()) return false;
  remove(entries_.find(*expiries_.begin()->second));
  return true;
}

std::optional<std::size_t> Store::compactOne() {
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

}  // namespace kv
