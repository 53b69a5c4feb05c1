#include "Log.h"

#include <algorithm>
#include <cstring>

namespace kv {

std::uint64_t checksum(std::string_view bytes, std::uint64_t before) {
  std::uint64_t sum = before;
  for (const char byte : bytes) {
    sum = (sum ^ static_cast<unsigned char>(byte)) * 0x100000001b3;
  }
  return sum;
}

Log::Header Log::headerAt(const Chunk& chunk, std::size_t offset) {
  Header header;
  std::memcpy(&header, chunk.memory.get() + offset, sizeof header);
  return header;
}

std::size_t Log::sizeOf(const Header& header) {
  return sizeof header + header.keySize + header.valueSize;
}

Log::Chunk& Log::chunkFor(std::size_t size) {
  if (!chunks_.empty()) {
    Chunk& last = chunks_.rbegin()->second;
    if (last.size - last.used >= size) return last;
  }
  const std::size_t chunkBytes = std::max(size, chunkSize);
  Chunk chunk{std::make_unique_for_overwrite<char[]>(chunkBytes), chunkBytes};
  const std::uint64_t full = lastChunk_;
  Chunk& last = chunks_.emplace(full + 1, std::move(chunk)).first->second;
  lastChunk_ = full + 1;
  bytes_ += chunkBytes;
  if (const auto found = chunks_.find(full); found != chunks_.end()) judge(full, found->second);
  return last;
}

Log::Place Log::append(const Record& record) {
  const Header header{record.key.size(), record.value.size(), record.sum};
  Chunk& chunk = chunkFor(sizeOf(header));
  const Place place{lastChunk_, chunk.used};
  char* end = chunk.memory.get() + chunk.used;
  end = std::copy_n(reinterpret_cast<const char*>(&header), sizeof header, end);
  end = std::ranges::copy(record.key, end).out;
  std::ranges::copy(record.value, end);
  chunk.used += sizeOf(header);
  return place;
}

Log::Record Log::at(Place place) const {
  const Chunk& chunk = chunks_.at(place.chunk);
  const Header header = headerAt(chunk, place.offset);
  const char* key = chunk.memory.get() + place.offset + sizeof header;
  return {{key, header.keySize}, {key + header.keySize, header.valueSize}, header.sum};
}

void Log::discard(Place place) {
  Chunk& chunk = chunks_.at(place.chunk);
  const std::size_t size = sizeOf(headerAt(chunk, place.offset));
  chunk.garbage += size;
  garbageBytes_ += size;
  judge(place.chunk, chunk);
}

void Log::judge(std::uint64_t number, const Chunk& chunk) {
  if (number != lastChunk_ && chunk.garbage >= chunk.used / 4) wasteful_.insert(number);
}

bool Log::find(Place& place) const {
  auto chunk = chunks_.lower_bound(place.chunk);
  if (chunk != chunks_.end() && chunk->first == place.chunk) {
    if (place.offset < chunk->second.used) return true;
    ++chunk;
  }
  if (chunk == chunks_.end()) return false;
  place = {chunk->first, 0};
  return true;
}

Log::Place Log::after(Place place) const {
  return {place.chunk, place.offset + sizeOf(headerAt(chunks_.at(place.chunk), place.offset))};
}

std::optional<std::uint64_t> Log::wastefulChunk() const {
  if (wasteful_.empty()) return std::nullopt;
  return *wasteful_.begin();
}

bool Log::allGarbage(std::uint64_t number) const {
  const Chunk& chunk = chunks_.at(number);
  return chunk.garbage == chunk.used;
}

void Log::release(std::uint64_t number) {
  const auto chunk = chunks_.find(number);
  bytes_ -= chunk->second.size;
  garbageBytes_ -= chunk->second.garbage;
  wasteful_.erase(number);
  chunks_.erase(chunk);
}

}  // namespace kv
