#include <fmt/format.h>
#include <fnmatch.h>
#include <unistd.h>

#include <array>
#include <iterator>
#include <utility>
#include <vector>

#include "Commands.h"

namespace kv {

void Commands::ping(Call& call) {
  if (call.words.size() > 2) return call.syntaxError();
  call.words.size() == 2 ? call.answer.bulk(call.words[1]) : call.answer.simple("PONG");
}

void Commands::echo(Call& call) { call.answer.bulk(call.words[1]); }

void Commands::select(Call& call) {
  const auto number = call.number(1);
  if (!number) return;
  *number == 0 ? call.answer.simple("OK") : call.answer.error("ERR DB index is out of range");
}

void Commands::quit(Call& call) {
  call.session.over = true;
  call.answer.simple("OK");
}

void Commands::client(Call& call) {
  if (call.words.size() == 3 && is(call.words[1], "setname")) {
    call.session.name = call.words[2];
    call.answer.simple("OK");
  } else if (call.words.size() == 2 && is(call.words[1], "getname")) {
    call.answer.bulk(call.session.name);
  } else {
    call.syntaxError();
  }
}

// CONFIG SET background on|off is the one setting that there is; the others say what is so.
void Commands::config(Call& call) {
  if (is(call.words[1], "set")) return configSet(call);
  if (!is(call.words[1], "get") || call.words.size() != 3) return call.syntaxError();
  const std::array<std::pair<const char*, std::string>, 5> settings{{
      {"appendonly", "no"},
      {"background", background_.on() ? "on" : "off"},
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

void Commands::configSet(Call& call) {
  if (call.words.size() != 4 || !is(call.words[2], "background")) {
    return call.answer.error("ERR Unknown option or number of arguments for CONFIG SET");
  }
  const bool on = is(call.words[3], "on");
  if (!on && !is(call.words[3], "off")) return call.answer.error("ERR on or off?");
  background_.onIs(on);
  call.answer.simple("OK");
}

void Commands::info(Call& call) {
  std::string text = fmt::format(
      "# Server\r\nprocess_id:{}\r\n"
      "# Clients\r\nconnected_clients:{}\r\n"
      "# Stats\r\ntotal_connections_received:{}\r\ntotal_commands_processed:{}\r\n"
      "# Memory\r\nused_memory:{}\r\ngarbage_bytes:{}\r\nvalue_bytes:{}\r\nmaxmemory:{}\r\n"
      "# Background\r\nbackground:{}\r\ndigest_rounds:{}\r\ncorrupt_values:{}\r\nfreed_bytes:{}\r\n"
      "# Keyspace\r\ndb0:keys={},expires={},avg_ttl=0\r\n# Tasks\r\n",
      getpid(), clients_, clientsAccepted_, executed_, store_.log().bytes(),
      store_.log().garbageBytes(), store_.valueBytes(), Store::sizeLimit,
      background_.on() ? "on" : "off", background_.digestRounds(), background_.corruptValues(),
      store_.freedBytes(), store_.keyCount(), store_.expiringCount());
  for (const char c : root_.statsRenderTextForDebugToString()) {
    if (c == '\n') text += '\r';
    text += c;
  }
  call.answer.bulk(text);
}

}  // namespace kv
