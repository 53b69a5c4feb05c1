#ifndef TARVO_BENCH_LEAVES_H
#define TARVO_BENCH_LEAVES_H

/// Rows of what needs no loop: locks, names, hashes, exceptions, the clock and the history.

#include <exception>
#include <string_view>

#include "Runs.h"
#include "Tarvo/Backtrace.h"
#include "Tarvo/ConstString.h"
#include "Tarvo/HashMix.h"
#include "Tarvo/TaskSchedulerHistory.h"

namespace bench {

/// Calls `body` with `depth` frames more on the stack.
template <typename Body>
[[gnu::noinline]] void atDepth(long depth, const Body& body) {
  if (depth > 0) {
    atDepth(depth - 1, body);
  } else {
    body();
  }
  asm volatile("");  // keeps every frame
}

/// The argument is how many frames there are.
template <typename Error>
void ThrowAndCatch(State& state) {
  for (auto _ : state) {
    try {
      atDepth(state.range(0), [&] {
        if (state.range(0) > 0) throw Error("what went wrong");
      });
    } catch (const std::exception& e) {
      opaque(e);
    }
  }
}

inline void BacktraceCapture(State& state) {
  atDepth(state.range(0), [&] {
    for (auto _ : state) {
      const Tarvo::Backtrace here(true);
      opaque(here);
    }
  });
}

template <typename Mutex>
void LockAndUnlock(State& state) {
  Mutex mutex;
  for (auto _ : state) {
    mutex.lock();
    opaque(mutex);
    mutex.unlock();
  }
}

inline std::vector<std::string> namesOf(std::size_t count) {
  std::vector<std::string> texts;
  for (std::size_t i = 0; i < count; ++i) texts.push_back("connection " + std::to_string(i));
  return texts;
}

/// Measures `look(text)` with the texts in an order that no prefetcher foresees.
template <typename Look>
void lookUp(State& state, const std::vector<std::string>& texts, Look look) {
  std::size_t at = 0;
  for (auto _ : state) {
    look(texts[at]);
    at = (at + 514'229) % texts.size();
  }
}

/// A name that is known among so many.
inline void InternString(State& state) {
  const auto texts = namesOf(many(state));
  Tarvo::ConstStringCache cache;
  std::vector<Tarvo::ConstStringRef> known;
  for (const auto& text : texts) known.emplace_back(cache, text);
  lookUp(state, texts, [&](const std::string& text) {
    const Tarvo::ConstStringRef handle(cache, text);
    opaque(handle);
  });
}

template <typename Handle>
void copy(State& state, const Handle& original) {
  for (auto _ : state) {
    const Handle other(original);
    opaque(other);
  }
}

inline void CopyConstStringRef(State& state) {
  Tarvo::ConstStringCache cache;
  copy(state, Tarvo::ConstStringRef(cache, "connection 17"));
}

/// Of so many bytes.
template <typename Hash>
void hash(State& state, Hash hashOf) {
  const std::string bytes(many(state), 'b');
  const std::string_view text = bytes;
  for (auto _ : state) {
    opaque(text);
    opaque(hashOf(text));
  }
}

inline void UtilHash(State& state) {
  hash(state, [](std::string_view text) { return Tarvo::Util::hash(text); });
}

inline void LibraryClock(State& state) {
  for (auto _ : state) opaque(Tarvo::time());
}

/// The public object itself, full, so that each event replaces the oldest, and the moment is given:
/// that is what a task's run adds to its two readings of the clock, twice.
inline void HistoryInsert(State& state) {
  const LoopOfRow loop;
  const auto root = Tarvo::schedulerRootTarvo();
  const Idle tasks[] = {{root, Tarvo::TaskPriority::normal, "first"},
                        {root, Tarvo::TaskPriority::normal, "second"}};
  Tarvo::TaskSchedulerHistory history(100);
  const auto now = Tarvo::TaskClock::now();
  unsigned turn = 0;
  for (auto _ : state) {
    history.insert(now, Tarvo::TaskSchedulerEventType::runStart, &tasks[turn ^= 1U]);
  }
}

}  // namespace bench

#endif
