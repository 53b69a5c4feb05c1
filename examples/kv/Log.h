#ifndef TARVO_EXAMPLES_KV_LOG_H
#define TARVO_EXAMPLES_KV_LOG_H

/// Where values stand: records, one after the other, in chunks of memory that are only ever
/// appended to.
///
/// A record that is overwritten, deleted or expired stays where it is and is garbage. A chunk with
/// a good part of garbage is wasteful: whoever copies what is alive in it to the end of the log may
/// release it. Chunks have rising numbers and places are numbers too, so that a walk through the
/// log can stop anywhere, for any time, and go on from its place although chunks have come and
/// gone.

#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string_view>

namespace kv {

inline constexpr std::uint64_t checksumOfNothing = 0xcbf29ce484222325;

/// The checksum of what came before and `bytes` together.
std::uint64_t checksum(std::string_view bytes, std::uint64_t before = checksumOfNothing);

class Log {
 public:
  struct Place {
    std::uint64_t chunk = 0;
    std::size_t offset = 0;
    auto operator<=>(const Place&) const = default;
  };
  /// Views into the log, good until the chunk is released.
  struct Record {
    std::string_view key;
    std::string_view value;
    std::uint64_t sum;  // of the value
  };

  Place append(const Record& record);
  Record at(Place place) const;
  /// The record there is garbage from now on.
  void discard(Place place);

  /// Moves `place`, which is between records, to the next record; false at the end of the log.
  bool find(Place& place) const;
  /// Behind the record there.
  Place after(Place place) const;
  /// The chunk that is appended to; 0 before there is one.
  std::uint64_t lastChunk() const { return lastChunk_; }

  /// A chunk that is worth being emptied, and whether all of it is garbage.
  std::optional<std::uint64_t> wastefulChunk() const;
  bool allGarbage(std::uint64_t chunk) const;
  void release(std::uint64_t chunk);

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
  struct Header {
    std::size_t keySize;
    std::size_t valueSize;
    std::uint64_t sum;
  };

  Chunk& chunkFor(std::size_t size);
  void judge(std::uint64_t number, const Chunk& chunk);
  static Header headerAt(const Chunk& chunk, std::size_t offset);
  static std::size_t sizeOf(const Header& header);

  std::map<std::uint64_t, Chunk> chunks_;
  std::uint64_t lastChunk_ = 0;
  std::set<std::uint64_t> wasteful_;
  std::size_t bytes_ = 0;
  std::size_t garbageBytes_ = 0;
};

}  // namespace kv

#endif
