#ifndef TARVO_EXAMPLES_KV_COMMANDS_H
#define TARVO_EXAMPLES_KV_COMMANDS_H

/// What clients may ask for. Commands.cpp has the table, KeyCommands.cpp what concerns the data,
/// ServerCommands.cpp what concerns the service and the connection.

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

/// Whether a word of a client is that, in capitals or not.
bool is(std::string_view word, std::string_view wanted);

/// What one client has said about its connection.
struct Session {
  std::string name;
  bool over = false;  // after the last answer nothing more is served
};

class Commands {
 public:
  Commands(const Tarvo::TaskSchedulerRoot& root, Store& store, Background& background)
      : root_(root), store_(store), background_(background) {}

  /// Appends the answer to `out`. There is at least one word.
  void execute(const Words& words, Session& session, std::string& out);

  /// Told by whoever accepts clients and lets them go.
  void clientCame() { ++clientsAccepted_, ++clients_; }
  void clientLeft() { --clients_; }

 private:
  struct Call {
    const Words& words;
    Session& session;
    Writer answer;

    /// The word as a number; when it is none, that is the answer.
    std::optional<std::int64_t> number(std::size_t word);
    void syntaxError() { answer.error("ERR syntax error"); }
  };
  struct Command {
    std::string_view name;
    int words;  // this many with the name; so many or more when it is negative
    void (Commands::*run)(Call&);
  };

  static std::span<const Command> table();
  static const Command* find(std::string_view name);

  void get(Call& call);
  void set(Call& call);
  void mget(Call& call);
  void mset(Call& call);
  void del(Call& call);
  void exists(Call& call);
  void incr(Call& call) { add(call, 1); }
  void decr(Call& call) { add(call, -1); }
  void incrby(Call& call);
  void expire(Call& call) { expireIn(call, 1); }
  void pexpire(Call& call) { expireIn(call, 1e-3); }
  void ttl(Call& call) { lifeLeft(call, 1); }
  void pttl(Call& call) { lifeLeft(call, 1e-3); }
  void dbsize(Call& call);
  void flushdb(Call& call);
  void add(Call& call, std::int64_t difference);
  void expireIn(Call& call, double unit);
  void lifeLeft(Call& call, double unit);

  void ping(Call& call);
  void echo(Call& call);
  void select(Call& call);
  void quit(Call& call);
  void client(Call& call);
  void command(Call& call);
  void config(Call& call);
  void configSet(Call& call);
  void info(Call& call);

  const Tarvo::TaskSchedulerRoot& root_;
  Store& store_;
  Background& background_;
  std::size_t clients_ = 0;
  std::size_t clientsAccepted_ = 0;
  std::size_t executed_ = 0;
};

}  // namespace kv

#endif
