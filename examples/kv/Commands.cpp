#include "Commands.h"

#include <fmt/format.h>
#include <strings.h>

#include <algorithm>
#include <array>
#include <cctype>

namespace kv {

namespace {

/// A word of a client, fit for a line of an answer.
std::string printable(std::string_view word) {
  std::string text(word.substr(0, 64));
  std::ranges::replace_if(
      text, [](unsigned char c) { return std::isprint(c) == 0; }, '?');
  return text;
}

}  // namespace

bool is(std::string_view word, std::string_view wanted) {
  return word.size() == wanted.size() && strncasecmp(word.data(), wanted.data(), word.size()) == 0;
}

// The most frequent ones stand first.
std::span<const Commands::Command> Commands::table() {
  static constexpr std::array commands{
      Command{"get", 2, &Commands::get},          Command{"set", -3, &Commands::set},
      Command{"incr", 2, &Commands::incr},        Command{"decr", 2, &Commands::decr},
      Command{"incrby", 3, &Commands::incrby},    Command{"del", -2, &Commands::del},
      Command{"exists", -2, &Commands::exists},   Command{"mget", -2, &Commands::mget},
      Command{"mset", -3, &Commands::mset},       Command{"expire", 3, &Commands::expire},
      Command{"pexpire", 3, &Commands::pexpire},  Command{"ttl", 2, &Commands::ttl},
      Command{"pttl", 2, &Commands::pttl},        Command{"dbsize", 1, &Commands::dbsize},
      Command{"flushdb", 1, &Commands::flushdb},  Command{"ping", -1, &Commands::ping},
      Command{"echo", 2, &Commands::echo},        Command{"select", 2, &Commands::select},
      Command{"quit", 1, &Commands::quit},        Command{"client", -2, &Commands::client},
      Command{"command", -1, &Commands::command}, Command{"config", -2, &Commands::config},
      Command{"info", -1, &Commands::info},
  };
  return commands;
}

const Commands::Command* Commands::find(std::string_view name) {
  const auto found =
      std::ranges::find_if(table(), [&](const Command& command) { return is(name, command.name); });
  return found == table().end() ? nullptr : &*found;
}

void Commands::execute(const Words& words, Session& session, std::string& out) {
  Call call{words, session, Writer(out)};
  ++executed_;
  const Command* command = find(words[0]);
  if (command == nullptr) {
    return call.answer.error(fmt::format("ERR unknown command '{}'", printable(words[0])));
  }
  const auto count = static_cast<int>(words.size());
  if (command->words < 0 ? count < -command->words : count != command->words) {
    return call.answer.error(
        fmt::format("ERR wrong number of arguments for '{}' command", command->name));
  }
  (this->*command->run)(call);
}

std::optional<std::int64_t> Commands::Call::number(std::size_t word) {
  const auto number = numberOf(words[word]);
  if (!number) answer.error("ERR value is not an integer or out of range");
  return number;
}

// A line for each: name, number of words, no flags, no keys.
void Commands::command(Call& call) {
  if (call.words.size() > 1) {
    if (call.words.size() == 2 && is(call.words[1], "count")) {
      return call.answer.integer(static_cast<std::int64_t>(table().size()));
    }
    return call.answer.array(0);  // no documentation
  }
  call.answer.array(table().size());
  for (const Command& command : table()) {
    call.answer.array(6);
    call.answer.bulk(command.name);
    call.answer.integer(command.words);
    call.answer.array(0);
    for (int place = 0; place < 3; ++place) call.answer.integer(0);
  }
}

}  // namespace kv
