#include "Connection.h"

#include <fmt/format.h>

#include <chrono>
#include <utility>

namespace kv {

using namespace std::chrono_literals;

namespace {

constexpr auto requestQuantum = 1ms;
constexpr unsigned int requestsAtLeast = 8;     // before it looks at the clock
constexpr std::size_t outputLimit = 256 << 10;  // above it nothing more is served

}  // namespace

// The timer is less urgent than the connection, so that what a client has sent in time is read
// before it is called idle, however late the thread is.
Connection::Connection(Service& service, Descriptor socket, double idleSeconds, Left left)
    : Wire(service.root, Tarvo::TaskPriority::high, fmt::format("client {}", socket.get()),
           std::move(socket)),
      Debuggable("Kv"),
      service_(service),
      left_(std::move(left)),
      idleSeconds_(idleSeconds),
      idleTimer_(std::make_shared<Timer>(taskScheduler(), "idle", [this] { idle(); })) {
  taskStatsNameIs("client");  // one record for all that come and go
  taskQuantumIs(requestQuantum);
  idleTimer_->scheduleTaskDelay(idleSeconds_);
  ++service_.clients;
  ++service_.clientsAccepted;
}

void Connection::taskExecuteReadable() {
  if (starved_) receive();
  serve();
  answer();
}

void Connection::taskExecuteWritable() { answer(); }

/// Serves the whole requests in `in_`, as far as its quantum and the room for answers allow.
void Connection::serve() {
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
bool Connection::serveNext(std::string_view& input) {
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
void Connection::answer() {
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

void Connection::idle() {
  if (!std::exchange(active_, false)) return leave("idle, dropped");
  idleTimer_->scheduleTaskDelay(idleSeconds_);
}

void Connection::leave(const char* how) {
  TARVO_TRACE(*this, 1, "client {}: {}", fd(), how);
  left_(*this);
}

}  // namespace kv
