#include "Connection.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <utility>

namespace kv {

using namespace std::chrono_literals;
using Tarvo::TaskPriority;

namespace {

constexpr auto requestQuantum = 1ms;
constexpr std::size_t outputLimit = 256 << 10;  // above it nothing more is served
constexpr std::size_t kept = 1 << 20;           // buffers above this are given back when empty

/// Empties a buffer of which everything was used.
void reuse(std::string& buffer, std::size_t& used) {
  buffer.clear();
  used = 0;
  if (buffer.capacity() > kept) buffer.shrink_to_fit();
}

}  // namespace

/// Of normal priority, so that what a client has sent in time is read before it is called idle,
/// however late the thread is.
class Connection::Idle : public Tarvo::TimerTask {
 public:
  Idle(std::shared_ptr<Tarvo::TaskScheduler> scheduler, Connection& connection)
      : TimerTask(std::move(scheduler), TaskPriority::normal, "idle"), connection_(connection) {}

 private:
  void taskExecute() override {
    taskWorkCountInc(1);
    connection_.leave("idle, dropped");
  }

  Connection& connection_;
};

Connection::Connection(std::shared_ptr<Tarvo::TaskScheduler> scheduler, Descriptor socket,
                       Commands& commands, Clients& clients, double idleSeconds,
                       const Tarvo::Debuggable& trace)
    : FileDescriptorTask(std::move(scheduler), TaskPriority::high,
                         fmt::format("client {}", socket.get())),
      Debuggable(trace),
      commands_(commands),
      clients_(clients),
      idleSeconds_(idleSeconds),
      socket_(std::move(socket)),
      idle_(std::make_shared<Idle>(taskScheduler(), *this)) {
  taskStatsNameIs("client");  // one record for all that come and go
  taskQuantumIs(requestQuantum);
  taskWatchFdIs(fd());
  idle_->scheduleTaskDelay(idleSeconds_);
}

Connection::~Connection() { taskWatchFdDel(); }

void Connection::taskExecuteReadable() {
  drained_ = false;
  if (refused_) {
    discardInput();
  } else {
    serve();
  }
  giveOut();
  settle();
}

void Connection::taskExecuteWritable() {
  giveOut();
  settle();
}

void Connection::serve() {
  starved_ = false;
  bool servedAny = false;
  while (unsent() < outputLimit && !refused_) {
    if (serveOne()) {
      servedAny = true;
    } else if (!refused_ && !takeIn()) {
      starved_ = true;
      break;
    }
    if (taskShouldYield()) break;
  }
  if (served_ == in_.size()) reuse(in_, served_);
  if (servedAny && !refused_) idle_->scheduleTaskDelay(idleSeconds_);
}

bool Connection::serveOne() {
  const Parsed parsed = parseRequest(unserved());
  switch (parsed.outcome) {
    case Parsed::Outcome::incomplete:
      return false;
    case Parsed::Outcome::malformed:
      refuse(parsed.fault);
      return false;
    case Parsed::Outcome::whole:
      break;
  }
  if (!commands_.execute(parsed.request, out_)) refused_ = true;
  served_ += parsed.request.size;
  taskWorkCountInc(1);
  return true;
}

bool Connection::takeIn() {
  static std::array<char, 64 << 10> buffer;  // one thread, and nothing stays in it
  if (drained_ || ended_) return false;
  const ssize_t got = read(fd(), buffer.data(), buffer.size());
  if (got < 0 && errno == EINTR) return takeIn();
  drained_ = got < static_cast<ssize_t>(buffer.size());
  ended_ = got == 0;
  broken_ = got < 0 && errno != EAGAIN;
  if (got <= 0) return false;
  in_.erase(0, std::exchange(served_, 0));
  in_.append(buffer.data(), static_cast<std::size_t>(got));
  return true;
}

void Connection::refuse(std::string_view fault) {
  TARVO_TRACE(*this, 1, "client {}: {}", fd(), fault);
  refused_ = true;
  out_.append("ERROR ").append(fault).append("\n");
}

// Closing a socket with input in it would take the answer away from the client.
void Connection::discardInput() {
  do {
    reuse(in_, served_);
    if (taskShouldYield()) return;
  } while (takeIn());
  starved_ = true;
}

void Connection::giveOut() {
  while (unsent() > 0 && !broken_) {
    const ssize_t put = send(fd(), out_.data() + sent_, unsent(), MSG_NOSIGNAL);
    if (put < 0 && errno == EINTR) continue;
    broken_ = put < 0 && errno != EAGAIN;
    if (put < 0) return;
    sent_ += static_cast<std::size_t>(put);
    if (!refused_) idle_->scheduleTaskDelay(idleSeconds_);
  }
  reuse(out_, sent_);
}

/// Decides what the connection waits for next.
void Connection::settle() {
  const bool allServed = ended_ && starved_;
  if (broken_) return leave("broken");
  if (unsent() > 0) {
    taskWatchWritableIs(true);
  } else if (allServed) {
    return leave("done");
  } else if (refused_) {
    shutdown(fd(), SHUT_WR);
  }
  const bool reads = !allServed && (refused_ || unsent() < outputLimit);
  taskWatchReadableIs(reads);
  if (reads && !starved_) scheduleTaskReadable();
}

void Connection::leave(const char* how) {
  TARVO_TRACE(*this, 1, "client {}: {}", fd(), how);
  idle_->stopTimerTask();
  clients_.left(*this);
}

}  // namespace kv
