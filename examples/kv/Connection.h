#ifndef TARVO_EXAMPLES_KV_CONNECTION_H
#define TARVO_EXAMPLES_KV_CONNECTION_H

/// One client: its requests in, the answers out.
///
/// A run of the reading direction reads once, serves the whole requests among what it has, and
/// writes once; what it does not finish within its quantum it leaves to its next turn. Answers that
/// the client does not take at once are kept and written when it does; while there are too many of
/// them, nothing more is read from it. A client that does nothing useful for a while is dropped.

#include <fmt/format.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string_view>
#include <utility>

#include "Commands.h"
#include "Tarvo/TaskScheduler.h"
#include "Tarvo/Trace.h"
#include "Timer.h"
#include "Wire.h"

namespace kv {

using namespace std::chrono_literals;

class Connection : public Wire, Tarvo::Debuggable {
 public:
  /// Called when the connection is over: letting go of it is all that is left to do.
  using Left = std::function<void(Connection&)>;

  /// Drops a client that was idle for that long, and at the latest after twice the time.
  Connection(Service& service, Descriptor socket, double idleSeconds, Left left)
      : Wire(service.root, Tarvo::TaskPriority::high, fmt::format("client {}", socket.get()),
             std::move(socket)),
        Debuggable("Kv"),
        service_(service),
        left_(std::move(left)),
        idleSeconds_(idleSeconds),
        idleTimer_(std::make_shared<Timer>(taskScheduler(), "idle", [this] { idle(); })) {
    taskStatsNameIs("client");  // one record for all that come and go
    taskQuantumIs(1ms);
    idleTimer_->scheduleTaskDelay(idleSeconds_);
    ++service_.clients;
    ++service_.clientsAccepted;
  }
  ~Connection() override { --service_.clients; }

 private:
  static constexpr unsigned int requestsAtLeast = 8;     // before it looks at the clock
  static constexpr std::size_t outputLimit = 256 << 10;  // above it nothing more is served

  void taskExecuteReadable() override {
    if (starved_) receive();
    serve();
    answer();
  }

  void taskExecuteWritable() override { answer(); }

  /// Serves the whole requests in `in_`, as far as its quantum and the room for answers allow.
  void serve() {
    std::string_view input = in_;
    unsigned int served = 0;
    starved_ = false;
    while (unsent() < outputLimit && serveNext(input)) {
      if (++served % requestsAtLeast == 0 && taskShouldYield()) break;
    }
    taskWorkCountInc(served);
    if (served > 0) active_ = true;
    if (session_.over) {
      starved_ = true;  // what else comes is thrown away: to leave it there would cost the answer
      input = {};
    }
    in_.erase(0, in_.size() - input.size());
    if (in_.empty()) giveBack(in_);
  }

  /// Takes one request off the input; false when there is no other to serve.
  bool serveNext(std::string_view& input) {
    if (session_.over) return false;
    const Parsed parsed = parseRequest(input, words_);
    starved_ = parsed.outcome == Parsed::Outcome::incomplete;
    if (starved_) return false;
    if (parsed.outcome == Parsed::Outcome::malformed) {
      TARVO_TRACE(*this, 1, "client {}: {}", fd(), parsed.fault);
      Writer(out_).error(fmt::format("ERR {}", parsed.fault));
      session_.over = true;
      return false;
    }
    if (!words_.empty()) execute(service_, session_, words_, out_);
    input.remove_prefix(parsed.size);
    return true;
  }

  /// Sends what it can, and decides what the connection waits for next.
  void answer() {
    if (flush()) active_ = !session_.over;
    const bool done = otherEnd() == OtherEnd::saidAll && starved_;
    if (otherEnd() == OtherEnd::gone) return leave("broken");
    if (unsent() == 0) {
      if (done) return leave("done");
      if (session_.over) shutdown(fd(), SHUT_WR);
    }
    const bool reads = !done && unsent() < outputLimit;
    if (reads != taskWatchReadable()) taskWatchReadableIs(reads);
    if (reads && !starved_) scheduleTaskReadable();
  }

  void idle() {
    if (!std::exchange(active_, false)) return leave("idle, dropped");
    idleTimer_->scheduleTaskDelay(idleSeconds_);
  }

  void leave(const char* how) {
    TARVO_TRACE(*this, 1, "client {}: {}", fd(), how);
    left_(*this);
  }

  Service& service_;
  Left left_;
  double idleSeconds_;
  // Less urgent than the connection, so that what a client has sent in time is read before it is
  // called idle, however late the thread is.
  std::shared_ptr<Timer> idleTimer_;
  Session session_;
  Words words_;          // of the request that is served
  bool starved_ = true;  // without more input there is nothing to serve
  bool active_ = false;  // since the idle timer expired last
};

}  // namespace kv

#endif
