#include <fmt/format.h>
#include <fnmatch.h>
#include <unistd.h>

#include <array>
#include <iterator>
#include <utility>
#include <vector>

#include "Commands.h"

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
  const Service& service = call.service;
  std::string text = fmt::format(
      "# Server\r\nprocess_id:{}\r\n"
      "# Clients\r\nconnected_clients:{}\r\n"
      "# Stats\r\ntotal_connections_received:{}\r\ntotal_commands_processed:{}\r\n"
      "# Memory\r\nused_memory:{}\r\nvalue_bytes:{}\r\nmaxmemory:{}\r\n"
      "# Background\r\nbackground:{}\r\ndigest_rounds:{}\r\ncorrupt_values:{}\r\n"
      "# Keyspace\r\ndb0:keys={},expires={},avg_ttl=0\r\n# Tasks\r\n",
      getpid(), service.clients, service.clientsAccepted, service.executed, service.store.memory(),
      service.store.valueBytes(), Store::sizeLimit, service.background.on() ? "on" : "off",
      service.background.digest().rounds(), service.background.digest().corruptValues(),
      service.store.keyCount(), service.store.expiringCount());
  for (const char c : service.root->statsRenderTextForDebugToString()) {
    if (c == '\n') text += '\r';
    text += c;
  }
  call.answer.bulk(text);
}

// For each: name, number of words, no flags, no places of keys.
void command(Call& call) {
  const auto tables = {keyCommands(), serverCommands()};
  const std::size_t count = keyCommands().size() + serverCommands().size();
  if (call.words.size() == 2 && is(call.words[1], "count")) return call.answer.count(count);
  if (call.words.size() > 1) return call.answer.array(0);  // no documentation
  call.answer.array(count);
  for (const auto& table : tables) {
    for (const Command& command : table) {
      call.answer.array(6);
      call.answer.bulk(command.name);
      call.answer.integer(command.words);
      call.answer.array(0);
      for (int place = 0; place < 3; ++place) call.answer.integer(0);
    }
  }
}

constexpr std::array commands{
    Command{"ping", -1, ping},
    Command{"echo", 2, [](Call& call) { call.answer.bulk(call.words[1]); }},
    Command{"select", 2, select},
    Command{"quit", 1, quit},
    Command{"client", -2, client},
    Command{"command", -1, command},
    Command{"config", -2, config},
    Command{"info", -1, info},
};

}  // namespace

std::span<const Command> serverCommands() { return commands; }

}  // namespace kv
