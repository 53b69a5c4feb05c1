/// Names and hashes: interning a known name beside finding it in a set of strings, copying an
/// interned name beside copying a shared string, and the library's hash beside the standard one.

#include <benchmark/benchmark.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include "Tarvo/ConstString.h"
#include "Tarvo/HashMix.h"

namespace {

/// `count` names, all known to a cache and to a set.
struct Names {
  explicit Names(long count) {
    texts.reserve(static_cast<std::size_t>(count));
    for (long i = 0; i < count; ++i) texts.push_back("connection " + std::to_string(i));
    for (const auto& text : texts) handles.emplace_back(cache, text);
    set.insert(texts.begin(), texts.end());
  }
  std::vector<std::string> texts;
  Tarvo::ConstStringCache cache;
  std::vector<Tarvo::ConstStringRef> handles;
  std::unordered_set<std::string> set;
};

/// Made once for all rows of one size: a million take longer to make than to measure.
const Names& namesOf(long count) {
  static auto& made = *new std::map<long, std::unique_ptr<Names>>;
  auto& names = made[count];
  if (names == nullptr) names = std::make_unique<Names>(count);
  return *names;
}

/// Measures `look(text)` with the texts in an order that no prefetcher foresees.
template <typename Look>
void lookUp(benchmark::State& state, const Names& names, Look look) {
  std::size_t at = 0;
  for (auto _ : state) {
    look(names.texts[at]);
    at = (at + 514'229) % names.texts.size();
  }
}

void InternString(benchmark::State& state) {
  const Names& names = namesOf(state.range(0));
  auto& cache = const_cast<Tarvo::ConstStringCache&>(names.cache);
  lookUp(state, names, [&](const std::string& text) {
    const Tarvo::ConstStringRef handle(cache, text);
    benchmark::DoNotOptimize(handle.elem());
  });
}
BENCHMARK(InternString)->Arg(1)->Arg(1000)->Arg(1'000'000);

void InternStdUnorderedSet(benchmark::State& state) {
  const Names& names = namesOf(state.range(0));
  lookUp(state, names,
         [&](const std::string& text) { benchmark::DoNotOptimize(&*names.set.find(text)); });
}
BENCHMARK(InternStdUnorderedSet)->Arg(1)->Arg(1000)->Arg(1'000'000);

template <typename Handle>
void copy(benchmark::State& state, const Handle& original) {
  for (auto _ : state) {
    Handle other(original);
    benchmark::DoNotOptimize(other);
  }
}

void CopyConstStringRef(benchmark::State& state) {
  Tarvo::ConstStringCache cache;
  copy(state, Tarvo::ConstStringRef(cache, "connection 17"));
}
BENCHMARK(CopyConstStringRef);

/// In a program that has started a thread: without, the standard library counts without atomics.
void CopySharedString(benchmark::State& state) {
  std::thread([] {}).join();
  copy(state, std::make_shared<const std::string>("connection 17"));
}
BENCHMARK(CopySharedString);

template <typename Hash>
void hash(benchmark::State& state, Hash hashOf) {
  const std::string bytes(static_cast<std::size_t>(state.range(0)), 'b');
  std::string_view text = bytes;
  for (auto _ : state) {
    benchmark::DoNotOptimize(text);
    benchmark::DoNotOptimize(hashOf(text));
  }
}

void UtilHash(benchmark::State& state) {
  hash(state, [](std::string_view text) { return Tarvo::Util::hash(text); });
}
BENCHMARK(UtilHash)->Arg(8)->Arg(64)->Arg(1024);

void StdHash(benchmark::State& state) { hash(state, std::hash<std::string_view>()); }
BENCHMARK(StdHash)->Arg(8)->Arg(64)->Arg(1024);

}  // namespace
