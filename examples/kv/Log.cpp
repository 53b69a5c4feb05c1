#include "Log.h"

#include <algorithm>
#include <new>

namespace kv {

Log::Chunk& Log::chunkFor(std::size_t size) {
  if (!chunks_.empty()) {
    Chunk& last = chunks_.rbegin()->second;
    if (last.size - last.used >= size) return last;
  }
  const std::size_t bytes = std::max(size, chunkSize);
  Chunk chunk{std::make_unique_for_overwrite<char[]>(bytes), bytes};
  Chunk& last = chunks_.emplace_hint(chunks_.end(), lastChunk_ + 1, std::move(chunk))->second;
  ++lastChunk_;
  bytes_ += bytes;
  return last;
}

const Record* Log::append(std::string_view key, std::string_view value, std::uint64_t checksum) {
  Record head{0, checksum, static_cast<std::uint32_t>(key.size()),
              static_cast<std::uint32_t>(value.size())};
  Chunk& chunk = chunkFor(head.size());
  head.chunk = lastChunk_;
  char* begin = chunk.memory.get() + chunk.used;
  chunk.used += head.size();
  std::ranges::copy(value, std::ranges::copy(key, begin + sizeof head).out);
  return new (begin) Record(head);
}

void Log::discard(const Record& record) {
  Chunk& chunk = chunks_.at(record.chunk);
  chunk.garbage += record.size();
  garbageBytes_ += record.size();
  if (chunk.garbage >= chunk.size / 4) wasteful_.insert(record.chunk);
}

const Record* Log::next(Place& place) const {
  auto chunk = chunks_.lower_bound(place.chunk);
  if (chunk == chunks_.end()) return nullptr;
  if (chunk->first != place.chunk) {
    place = {chunk->first, 0};
  } else if (place.offset == chunk->second.used) {
    if (++chunk == chunks_.end()) return nullptr;
    place = {chunk->first, 0};
  }
  const char* begin = chunk->second.memory.get() + place.offset;
  const auto* record = std::launder(reinterpret_cast<const Record*>(begin));
  place.offset += record->size();
  return record;
}

// What is appended to is not emptied.
std::optional<std::uint64_t> Log::wastefulChunk() const {
  if (wasteful_.empty() || *wasteful_.begin() == lastChunk_) return std::nullopt;
  return *wasteful_.begin();
}

void Log::release(std::uint64_t number) {
  const auto chunk = chunks_.find(number);
  bytes_ -= chunk->second.size;
  garbageBytes_ -= chunk->second.garbage;
  wasteful_.erase(number);
  chunks_.erase(chunk);
}

void Log::clear() {
  while (!chunks_.empty()) release(chunks_.begin()->first);
}

}  // namespace kv
