#include "Commands.h"

#include <fmt/format.h>
#include <strings.h>

#include <algorithm>
#include <cctype>

namespace kv {

namespace {

const Command* find(std::string_view name) {
  for (const auto& table : {keyCommands(), serverCommands()}) {
    for (const Command& command : table) {
      if (is(name, command.name)) return &command;
    }
  }
  return nullptr;
}

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

std::optional<std::int64_t> Call::number(std::size_t word) {
  const auto number = numberOf(words[word]);
  if (!number) answer.error("ERR value is not an integer or out of range");
  return number;
}

void execute(Service& service, Session& session, const Words& words, std::string& out) {
  Call call{service, session, words, Writer(out)};
  ++service.executed;
  const Command* command = find(words[0]);
  if (command == nullptr) {
    return call.answer.error(fmt::format("ERR unknown command '{}'", printable(words[0])));
  }
  const auto count = static_cast<int>(words.size());
  if (command->words < 0 ? count < -command->words : count != command->words) {
    return call.answer.error(
        fmt::format("ERR wrong number of arguments for '{}' command", command->name));
  }
  command->run(call);
}

}  // namespace kv
