#include "Store.h"

#include "Tarvo/Platform.h"

namespace kv {

bool Store::set(std::string_view key, std::string_view value, Tarvo::Time timeToLive) {
  if (log_.bytes() - log_.garbageBytes() + key.size() + value.size() > sizeLimit) return false;
  const Log::Place place = log_.append({key, value, checksum(value)});
  auto entry = entries_.find(key);
  if (entry == entries_.end()) {
    entry = entries_.try_emplace(std::string(key)).first;
  } else {
    forget(*entry);
  }
  valueBytes_ += value.size();
  entry->second = {place, timeToLive == forever ? forever : Tarvo::time() + timeToLive};
  if (timeToLive != forever) expiries_.emplace(entry->second.expiry, &entry->first);
  return true;
}

std::optional<std::string_view> Store::get(std::string_view key) const {
  const auto entry = entries_.find(key);
  if (entry == entries_.end()) return std::nullopt;
  const Tarvo::Time expiry = entry->second.expiry;
  if (expiry != forever && expiry <= Tarvo::time()) return std::nullopt;
  return log_.at(entry->second.place).value;
}

bool Store::erase(std::string_view key) {
  const auto entry = entries_.find(key);
  if (entry == entries_.end()) return false;
  const bool alive = get(key).has_value();
  remove(entry);
  return alive;
}

void Store::forget(const Entries::value_type& entry) {
  valueBytes_ -= log_.at(entry.second.place).value.size();
  log_.discard(entry.second.place);
  if (entry.second.expiry != forever) expiries_.erase({entry.second.expiry, &entry.first});
}

void Store::remove(Entries::iterator entry) {
  forget(*entry);
  entries_.erase(entry);
}

bool Store::holds(Log::Place place, std::string_view key) const {
  const auto entry = entries_.find(key);
  return entry != entries_.end() && entry->second.place == place;
}

bool Store::expireOne() {
  if (expiries_.empty() || expiries_.begin()->first > Tarvo::time()) return false;
  remove(entries_.find(*expiries_.begin()->second));
  return true;
}

std::optional<std::size_t> Store::compactOne() {
  if (!compacting_) {
    const auto chunk = log_.wastefulChunk();
    if (!chunk) return std::nullopt;
    compacting_ = Log::Place{*chunk, 0};
  }
  const std::uint64_t chunk = compacting_->chunk;
  Log::Place place = *compacting_;
  if (log_.allGarbage(chunk) || !log_.find(place) || place.chunk != chunk) {
    release(chunk);
    return 0;
  }
  compacting_ = log_.after(place);
  const Log::Record record = log_.at(place);
  const auto entry = entries_.find(record.key);
  if (entry == entries_.end() || entry->second.place != place) return 0;
  entry->second.place = log_.append(record);
  log_.discard(place);
  return record.key.size() + record.value.size();
}

void Store::release(std::uint64_t chunk) {
  const std::size_t before = log_.bytes();
  log_.release(chunk);
  freedBytes_ += before - log_.bytes();
  compacting_.reset();
}

}  // namespace kv
