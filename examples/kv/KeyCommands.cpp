#include <algorithm>
#include <array>
#include <cmath>

#include "Commands.h"
#include "Tarvo/Platform.h"

namespace kv {

namespace {

constexpr std::size_t answerLimit = 64 << 20;
constexpr std::string_view noRoom = "OOM no room for the value";
constexpr double longestLife = 1e9;  // seconds

void get(Call& call) {
  const auto value = call.service.store.get(call.words[1]);
  value ? call.answer.bulk(*value) : call.answer.none();
}

void set(Call& call) {
  const Words& words = call.words;
  Tarvo::Time expiry = Store::forever;
  bool onlyNew = false;
  bool onlyOld = false;
  for (std::size_t word = 3; word < words.size(); ++word) {
    const bool seconds = is(words[word], "ex");
    if (is(words[word], "nx")) {
      onlyNew = true;
    } else if (is(words[word], "xx")) {
      onlyOld = true;
    } else if ((seconds || is(words[word], "px")) && word + 1 < words.size() &&
               expiry == Store::forever) {
      const auto life = call.number(++word);
      if (!life) return;
      const double length = static_cast<double>(*life) * (seconds ? 1 : 1e-3);
      if (length <= 0 || length > longestLife) {
        return call.answer.error("ERR invalid expire time in 'set' command");
      }
      expiry = Tarvo::time() + length;
    } else {
      return call.syntaxError();
    }
  }
  if (onlyNew && onlyOld) return call.syntaxError();
  if ((onlyNew || onlyOld) && call.service.store.get(words[1]).has_value() != onlyOld) {
    return call.answer.none();
  }
  if (!call.service.store.set(words[1], words[2], expiry)) return call.answer.error(noRoom);
  call.answer.simple("OK");
}

void mget(Call& call) {
  const std::size_t before = call.answer.size();
  call.answer.array(call.words.size() - 1);
  for (const std::string_view key : std::span(call.words).subspan(1)) {
    const auto value = call.service.store.get(key);
    value ? call.answer.bulk(*value) : call.answer.none();
    if (call.answer.size() - before > answerLimit) {
      call.answer.sizeIs(before);
      return call.answer.error("ERR the answer is too big");
    }
  }
}

void mset(Call& call) {
  if (call.words.size() % 2 == 0) {
    return call.answer.error("ERR wrong number of arguments for 'mset' command");
  }
  bool room = true;
  for (std::size_t word = 1; word < call.words.size() && room; word += 2) {
    room = call.service.store.set(call.words[word], call.words[word + 1]);
  }
  room ? call.answer.simple("OK") : call.answer.error(noRoom);
}

/// Answers for how many of the keys that is true.
template <typename Test>
void count(Call& call, const Test& test) {
  const auto keys = std::span(call.words).subspan(1);
  call.answer.integer(
      std::ranges::count_if(keys, [&](auto key) { return test(call.service.store, key); }));
}

void del(Call& call) {
  count(call, [](Store& store, auto key) { return store.erase(key); });
}

void exists(Call& call) {
  count(call, [](Store& store, auto key) { return store.get(key).has_value(); });
}

void add(Call& call, std::int64_t difference) {
  const std::string_view key = call.words[1];
  const auto text = call.service.store.get(key);
  const auto before = numberOf(text.value_or("0"));
  if (!before) return call.answer.error("ERR value is not an integer or out of range");
  std::int64_t sum = 0;
  if (__builtin_add_overflow(*before, difference, &sum)) {
    return call.answer.error("ERR increment or decrement would overflow");
  }
  const Tarvo::Time expiry = call.service.store.expiry(key).value_or(Store::forever);
  if (!call.service.store.set(key, std::to_string(sum), expiry)) return call.answer.error(noRoom);
  call.answer.integer(sum);
}

void expireIn(Call& call, double unit) {
  const auto life = call.number(2);
  if (!life) return;
  const double seconds = static_cast<double>(*life) * unit;
  if (seconds > longestLife) return call.answer.error("ERR invalid expire time");
  const bool there = seconds > 0
                         ? call.service.store.expiryIs(call.words[1], Tarvo::time() + seconds)
                         : call.service.store.erase(call.words[1]);
  call.answer.integer(there ? 1 : 0);
}

void lifeLeft(Call& call, double unit) {
  const auto expiry = call.service.store.expiry(call.words[1]);
  if (!expiry) return call.answer.integer(-2);
  if (*expiry == Store::forever) return call.answer.integer(-1);
  call.answer.integer(std::llround((*expiry - Tarvo::time()) / unit));
}

constexpr std::array commands{
    // The most frequent ones stand first.
    Command{"get", 2, get},
    Command{"set", -3, set},
    Command{"mget", -2, mget},
    Command{"mset", -3, mset},
    Command{"incr", 2, [](Call& call) { add(call, 1); }},
    Command{"decr", 2, [](Call& call) { add(call, -1); }},
    Command{"incrby", 3,
            [](Call& call) {
              if (const auto by = call.number(2)) add(call, *by);
            }},
    Command{"del", -2, del},
    Command{"exists", -2, exists},
    Command{"expire", 3, [](Call& call) { expireIn(call, 1); }},
    Command{"pexpire", 3, [](Call& call) { expireIn(call, 1e-3); }},
    Command{"ttl", 2, [](Call& call) { lifeLeft(call, 1); }},
    Command{"pttl", 2, [](Call& call) { lifeLeft(call, 1e-3); }},
    Command{"dbsize", 1, [](Call& call) { call.answer.integer(call.service.store.keyCount()); }},
    Command{"flushdb", 1, [](Call& call) { call.service.store.clear(), call.answer.simple("OK"); }},
};

}  // namespace

std::span<const Command> keyCommands() { return commands; }

}  // namespace kv
