#ifndef TARVO_EXAMPLES_KV_WORKERKEYS_H
#define TARVO_EXAMPLES_KV_WORKERKEYS_H

/// The keys of one worker, which nobody else uses, and what it knows about them: so for each answer
/// it can say whether it is right, byte for byte.
///
/// Each file has a key. Its value tells the key, a version and the file's contents. A few keys more
/// are given values with an end to their life. When such a value ends nobody knows exactly; but it
/// is there as long as its life, counted from the answer to the SET, has not passed when the GET is
/// sent, and gone only if its life, counted from the sending of the SET, has passed when the answer
/// to the GET has come.

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "Project.h"
#include "Tarvo/TaskTime.h"

namespace kv {

/// A request that was sent for a key.
struct Sent {
  enum class Verb : std::uint8_t { set, get, del };

  Verb verb;
  std::size_t key;
  Tarvo::Time time;
  unsigned int version = 0;       // of a SET
  unsigned int milliseconds = 0;  // to live; 0 for ever
};

class WorkerKeys {
 public:
  WorkerKeys(unsigned int worker, const std::vector<File>& files);

  /// The keys of files come first, then those whose values may end.
  std::size_t size() const { return keys_.size(); }
  std::size_t fileCount() const { return files_.size(); }
  const std::string& name(std::size_t key) const { return keys_[key].name; }

  /// A SET of the next version.
  Sent nextVersion(std::size_t key, Tarvo::Time now, unsigned int milliseconds = 0);
  std::string requestText(const Sent& sent) const;

  /// Whether the answer is right, in the light of all answers before; `value` is what came after a
  /// line that announced one. Takes note of what it tells.
  bool isRight(const Sent& sent, std::string_view line, std::string_view value, Tarvo::Time now);

  /// How many keys have a value without end, and the bytes of those values.
  std::size_t lastingCount() const;
  std::size_t lastingBytes() const;

 private:
  struct Key {
    std::string name;
    std::size_t file;
    unsigned int versions = 0;  // given out so far
    bool present = false;
    Sent set{};  // what put it there
    Tarvo::Time setAnswered = 0;
  };

  std::string heading(const Key& key, unsigned int version) const;
  std::size_t valueSize(const Key& key) const;
  bool isValue(const Key& key, std::string_view value) const;
  static bool mayBeThere(const Key& key, const Sent& sent);
  static bool mayBeGone(const Key& key, Tarvo::Time now);

  const std::vector<File>& files_;
  std::vector<Key> keys_;
};

}  // namespace kv

#endif
