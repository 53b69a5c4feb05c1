#ifndef TARVO_SRC_FOUNDATION_REGISTRY_H
#define TARVO_SRC_FOUNDATION_REGISTRY_H

#include <utility>

#include "foundation/AtFork.h"

namespace Tarvo::Impl {

// Changes of the maps behind the registries, each whole to a forked child. REQUIRES: the global
// lock. What they allocate is there before the change, what they free goes after it.

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

/// Adds an entry; where a map has the key already, it stays as it is. Returns where the key stands.
template <typename Map, typename Key, typename Value>
typename Map::iterator addEntry(Map& map, Key&& key, Value&& value) {
  Map one;
  one.emplace(std::forward<Key>(key), std::forward<Value>(value));
  auto node = one.extract(one.begin());
  if constexpr (requires { map.bucket_count(); }) growFor(map);
  decltype(map.insert(std::move(node))) added;  // with the node, when that was not wanted
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
  typename Map::node_type removed;
  const WholeChange change;
  removed = map.extract(entry);
}

}  // namespace Tarvo::Impl

#endif
