#ifndef TARVO_EXAMPLES_KV_COMMANDS_H
#define TARVO_EXAMPLES_KV_COMMANDS_H

/// What clients may ask for: KeyCommands.cpp has what concerns the data, Commands.cpp what concerns
/// the service and the connection.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "Background.h"
#include "Resp.h"
#include "Store.h"

namespace kv {

/// What commands work on.
struct Service {
  std::shared_ptr<Tarvo::TaskSchedulerRoot> root = Tarvo::schedulerRootTarvo();
  Store store = {};
  Background background{root, store};
  std::size_t clients = 0;
  std::size_t clientsAccepted = 0;
  std::size_t executed = 0;
};

/// What one client has said about its connection.
struct Session {
  std::string name;
  bool over = false;  // after the last answer nothing more is served
};

/// One request on its way. The first word is the command's name.
struct Call {
  Service& service;
  Session& session;
  const Words& words;
  Writer answer;

  /// The word as a number; when it is none, that is the answer.
  std::optional<std::int64_t> number(std::size_t word);
  void syntaxError() { answer.error("ERR syntax error"); }
};

struct Command {
  std::string_view name;
  int words;  // this many with the name; so many or more when it is negative
  void (*run)(Call&);
};

std::span<const Command> keyCommands();

/// What INFO tells, line by line.
std::string describe(const Service& service);

/// Whether a word of a client is that, in capitals or not.
bool is(std::string_view word, std::string_view wanted);

/// Appends the answer to `out`. There is at least one word.
void execute(Service& service, Session& session, const Words& words, std::string& out);

}  // namespace kv

#endif
