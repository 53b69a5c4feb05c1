#include "Commands.h"

#include <fmt/format.h>
#include <fnmatch.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <utility>
#include <vector>

namespace kv {

namespace {

void ping(Call& call) {
  if (call.words.size() > 2) return call.syntaxError();
  call.words.size() == 2 ? call.answer.bulk(call.words[1]) : call.answer.simple("PONG");
}

void select(Call& call) {
  const auto number = call.number(1);
  if (!number) return;
  *number == 0 ? call.answer.simple("OK") : call.answer.error("ERR DB index is out of range");
}

void quit(Call& call) {
  call.session.over = true;
  call.answer.simple("OK");
}

void client(Call& call) {
  if (call.words.size() == 3 && is(call.words[1], "setname")) {
    call.session.name = call.words[2];
    call.answer.simple("OK");
  } else if (call.words.size() == 2 && is(call.words[1], "getname")) {
    call.answer.bulk(call.session.name);
  } else {
    call.syntaxError();
  }
}

void configSet(Call& call) {
  if (call.words.size() != 4 || !is(call.words[2], "background")) {
    return call.answer.error("ERR Unknown option or number of arguments for CONFIG SET");
  }
  const bool on = is(call.words[3], "on");
  if (!on && !is(call.words[3], "off")) return call.answer.error("ERR on or off?");
  call.service.background.onIs(on);
  call.answer.simple("OK");
}

// CONFIG SET background on|off is the one setting that there is; the others say what is so.
void config(Call& call) {
  if (is(call.words[1], "set")) return configSet(call);
  if (!is(call.words[1], "get") || call.words.size() != 3) return call.syntaxError();
  const std::array<std::pair<const char*, std::string>, 5> settings{{
      {"appendonly", "no"},
      {"background", call.service.background.on() ? "on" : "off"},
      {"databases", "1"},
      {"maxmemory", std::to_string(Store::sizeLimit)},
      {"save", ""},
  }};
  const std::string pattern(call.words[2]);
  Words found;
  for (const auto& [name, value] : settings) {
    if (fnmatch(pattern.c_str(), name, FNM_CASEFOLD) != 0) continue;
    found.insert(found.end(), {name, value});
  }
  call.answer.array(found.size());
  for (const std::string_view word : found) call.answer.bulk(word);
}

void info(Call& call) {
  std::string text;
  for (const char c : describe(call.service)) {
    if (c == '\n') text += '\r';
    text += c;
  }
  call.answer.bulk(text);
}

void command(Call& call);

/// All of them, the most frequent ones first.
const std::vector<Command>& commands() {
  static const auto all = [] {
    std::vector<Command> table{keyCommands().begin(), keyCommands().end()};
    table.insert(table.end(), {{"ping", -1, ping},
                               {"echo", 2, [](Call& call) { call.answer.bulk(call.words[1]); }},
                               {"select", 2, select},
                               {"quit", 1, quit},
                               {"client", -2, client},
                               {"command", -1, command},
                               {"config", -2, config},
                               {"info", -1, info}});
    return table;
  }();
  return all;
}

// For each: name, number of words, no flags, no places of keys.
void command(Call& call) {
  const std::size_t count = commands().size();
  if (call.words.size() == 2 && is(call.words[1], "count")) return call.answer.integer(count);
  if (call.words.size() > 1) return call.answer.array(0);  // no documentation
  call.answer.array(count);
  for (const Command& each : commands()) {
    call.answer.array(6);
    call.answer.bulk(each.name);
    call.answer.integer(each.words);
    call.answer.array(0);
    for (int place = 0; place < 3; ++place) call.answer.integer(0);
  }
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
  const auto command = std::ranges::find_if(
      commands(), [&](const Command& each) { return is(words[0], each.name); });
  if (command == commands().end()) {
    return call.answer.error(fmt::format("ERR unknown command '{}'", printable(words[0])));
  }
  const auto count = static_cast<int>(words.size());
  if (command->words < 0 ? count < -command->words : count != command->words) {
    return call.answer.error(
        fmt::format("ERR wrong number of arguments for '{}' command", command->name));
  }
  command->run(call);
}

std::string describe(const Service& service) {
  const auto& [root, store, background, clients, accepted, executed] = service;
  return fmt::format(
      "# Server\nprocess_id:{}\n"
      "# Clients\nconnected_clients:{}\n"
      "# Stats\ntotal_connections_received:{}\ntotal_commands_processed:{}\n"
      "# Memory\nused_memory:{}\nvalue_bytes:{}\nmaxmemory:{}\n"
      "# Background\nbackground:{}\ndigest_rounds:{}\ncorrupt_values:{}\n"
      "# Keyspace\ndb0:keys={},expires={},avg_ttl=0\n"
      "# Tasks\n{}",
      getpid(), clients, accepted, executed, store.memory(), store.valueBytes(), Store::sizeLimit,
      background.on() ? "on" : "off", background.digestRounds(), background.corruptValues(),
      store.keyCount(), store.expiringCount(), root->statsRenderTextForDebugToString());
}

}  // namespace kv
