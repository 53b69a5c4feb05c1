#ifndef TARVO_EXAMPLES_KV_LOG_H
#define TARVO_EXAMPLES_KV_LOG_H

/// Where values stand: records, one after the other, in chunks of memory that are only ever
/// appended to.
///
/// A record that is overwritten, deleted or expired stays where it is and is garbage. A chunk with
/// a good part of garbage is wasteful: whoever copies what is alive in it to the end of the log may
/// release it. Chunks have rising numbers, so that a walk through the log can stop anywhere, for
/// any time, and go on from its place although chunks have come and gone.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <set>
#include <string_view>

namespace kv {

/// Stands in the log, with its bytes behind it, until its chunk is released.
struct Record {
  std::uint64_t chunk;
  std::uint64_t checksum;  // of the value
  std::uint32_t keySize;
  std::uint32_t valueSize;

  const char* bytes() const { return reinterpret_cast<const char*>(this + 1); }
  std::string_view key() const { return {bytes(), keySize}; }
  std::string_view value() const { return {bytes() + keySize, valueSize}; }
  /// In the log, where each record begins at a multiple of its alignment.
  std::size_t size() const { return (sizeof *this + keySize + valueSize + 7) & ~std::size_t{7}; }
};

class Log {
 public:
  /// Between two records.
  struct Place {
    std::uint64_t chunk = 0;
    std::size_t offset = 0;
  };

  const Record* append(std::string_view key, std::string_view value, std::uint64_t checksum) {
    Record head{0, checksum, static_cast<std::uint32_t>(key.size()),
                static_cast<std::uint32_t>(value.size())};
    Chunk& chunk = chunkFor(head.size());
    head.chunk = lastChunk_;
    char* begin = chunk.memory.get() + chunk.used;
    chunk.used += head.size();
    std::ranges::copy(value, std::ranges::copy(key, begin + sizeof head).out);
    return new (begin) Record(head);
  }

  /// The record is garbage from now on.
  void discard(const Record& record) {
    Chunk& chunk = chunks_.at(record.chunk);
    chunk.garbage += record.size();
    garbageBytes_ += record.size();
    if (chunk.garbage >= chunk.size / 4) wasteful_.insert(record.chunk);
  }

  /// The record at `place` or the next one, behind which it is then; none at the end of the log.
  const Record* next(Place& place) const {
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

  /// The chunk that is appended to; 0 before there is one.
  std::uint64_t lastChunk() const { return lastChunk_; }

  /// A chunk that is worth being emptied.
  std::optional<std::uint64_t> wastefulChunk() const {
    if (wasteful_.empty() || *wasteful_.begin() == lastChunk_) return std::nullopt;
    return *wasteful_.begin();
  }

  void release(std::uint64_t number) {
    const auto chunk = chunks_.find(number);
    bytes_ -= chunk->second.size;
    garbageBytes_ -= chunk->second.garbage;
    wasteful_.erase(number);
    chunks_.erase(chunk);
  }

  /// Releases all of them.
  void clear() {
    while (!chunks_.empty()) release(chunks_.begin()->first);
  }

  /// Memory taken, and how much of it is garbage.
  std::size_t bytes() const { return bytes_; }
  std::size_t garbageBytes() const { return garbageBytes_; }

 private:
  static constexpr std::size_t chunkSize = 256 << 10;

  struct Chunk {
    std::unique_ptr<char[]> memory;
    std::size_t size;
    std::size_t used = 0;
    std::size_t garbage = 0;
  };

  Chunk& chunkFor(std::size_t size) {
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

  std::map<std::uint64_t, Chunk> chunks_;
  std::uint64_t lastChunk_ = 0;
  std::set<std::uint64_t> wasteful_;
  std::size_t bytes_ = 0;
  std::size_t garbageBytes_ = 0;
};

}  // namespace kv

#endif
