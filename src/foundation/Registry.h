#ifndef TARVO_SRC_FOUNDATION_REGISTRY_H
#define TARVO_SRC_FOUNDATION_REGISTRY_H

#include <utility>

#include "foundation/AtFork.h"

namespace Tarvo::Impl {

// Changes of the maps behind the registries; a forked child sees each of them done or not begun.
// REQUIRES: the global lock. They allocate before the WholeChange and free after it.

/// Makes room in a hash map for one more entry.
template <typename Map>
void growFor(Map& map) {
  const auto size = map.size() + 1;
  if (static_cast<float>(size) <= map.max_load_factor() * static_cast<float>(map.bucket_count())) {
    return;
  }
  Map larger;
  larger.reserve(2 * size);
  const WholeChange change;
  larger.merge(map);
  map.swap(larger);
}

/// Adds an entry and returns its place. A map that has the key already stays unchanged, and the
/// result is the place of that entry.
template <typename Map, typename Key, typename Value>
typename Map::iterator addEntry(Map& map, Key&& key, Value&& value) {
  Map one;
  one.emplace(std::forward<Key>(key), std::forward<Value>(value));
  auto node = one.extract(one.begin());
  if constexpr (requires { map.bucket_count(); }) growFor(map);
  // Declared outside, so that a refused node is freed after the change.
  decltype(map.insert(std::move(node))) added;
  {
    const WholeChange change;
    added = map.insert(std::move(node));
  }
  if constexpr (requires { added.position; }) {
    return added.position;
  } else {
    return added;
  }
}

template <typename Map>
void removeEntry(Map& map, typename Map::iterator entry) {
  typename Map::node_type removed;  // outlives the change, so that it is freed after it
  const WholeChange change;
  removed = map.extract(entry);
}

}  // namespace Tarvo::Impl

#endif
