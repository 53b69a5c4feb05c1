#include "Connection.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <utility>

namespace kv {

using namespace std::chrono_literals;

namespace {

constexpr auto requestQuantum = 1ms;
constexpr std::size_t outputLimit = 256 << 10;  // above it nothing more is served
constexpr std::size_t kept = 1 << 20;           // buffers above this are given back when empty

void giveBack(std::string& buffer) {
  buffer.clear();
  if (buffer.capacity() > kept) buffer.shrink_to_fit();
}

bool failed(ssize_t result) { return result < 0 && errno != EAGAIN && errno != EINTR; }

}  // namespace

// The timer is less urgent than the connection, so that what a client has sent in time is read
// before it is called idle, however late the thread is.
Connection::Connection(Service& service, Descriptor socket, double idleSeconds, Left left)
    : FileDescriptorTask(service.root, Tarvo::TaskPriority::high,
                         fmt::format("client {}", socket.get())),
      Debuggable("Kv"),
      service_(service),
      left_(std::move(left)),
      idleSeconds_(idleSeconds),
      socket_(std::move(socket)),
      idleTimer_(std::make_shared<Timer>(taskScheduler(), "idle", [this] { idle(); })) {
  taskStatsNameIs("client");  // one record for all that come and go
  taskQuantumIs(requestQuantum);
  taskWatchFdIs(fd());
  idleTimer_->scheduleTaskDelay(idleSeconds_);
  ++service_.clients;
  ++service_.clientsAccepted;
}

Connection::~Connection() {
  taskWatchFdDel();
  --service_.clients;
}

void Connection::taskExecuteReadable() {
  const std::string_view input = takeIn();
  const std::size_t served = serve(input);
  if (in_.empty()) {
    in_ = input.substr(served);
  } else {
    in_.erase(0, served);
    if (in_.empty()) giveBack(in_);
  }
  giveOut();
  settle();
}

void Connection::taskExecuteWritable() {
  giveOut();
  settle();
}

/// What is to be served: what was left, and, where that is no whole request, what one read gives.
std::string_view Connection::takeIn() {
  static std::array<char, 64 << 10> buffer;  // one thread, and nothing stays in it
  if (!starved_) return in_;
  const ssize_t got = read(fd(), buffer.data(), buffer.size());
  ended_ = ended_ || got == 0;
  broken_ = failed(got);
  if (got <= 0) return in_;
  const std::string_view input(buffer.data(), static_cast<std::size_t>(got));
  return in_.empty() ? input : in_.append(input);
}

/// How much of the input needs no further attention.
std::size_t Connection::serve(std::string_view input) {
  std::size_t served = 0;
  starved_ = false;
  while (unsent() < outputLimit && !session_.over) {
    const Parsed parsed = parseRequest(input.substr(served), words_);
    starved_ = parsed.outcome == Parsed::Outcome::incomplete;
    if (starved_) return served;
    if (parsed.outcome == Parsed::Outcome::malformed) {
      TARVO_TRACE(*this, 1, "client {}: {}", fd(), parsed.fault);
      Writer(out_).error(fmt::format("ERR {}", parsed.fault));
      session_.over = true;
      break;
    }
    if (!words_.empty()) execute(service_, session_, words_, out_);
    active_ = true;
    served += parsed.size;
    taskWorkCountInc(1);
    if (taskShouldYield()) return served;
  }
  if (!session_.over) return served;
  starved_ = true;  // what else comes is thrown away: to leave it there would cost the answer
  return input.size();
}

void Connection::giveOut() {
  if (unsent() == 0) return;
  const ssize_t put = send(fd(), out_.data() + sent_, unsent(), MSG_NOSIGNAL);
  broken_ = failed(put);
  if (put <= 0) return;
  sent_ += static_cast<std::size_t>(put);
  active_ = !session_.over;
  if (unsent() > 0) return;
  giveBack(out_);
  sent_ = 0;
}

/// Decides what the connection waits for next.
void Connection::settle() {
  const bool done = ended_ && starved_;
  if (broken_) return leave("broken");
  if (unsent() > 0) {
    taskWatchWritableIs(true);
  } else if (done) {
    return leave("done");
  } else if (session_.over) {
    shutdown(fd(), SHUT_WR);
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
