#ifndef TARVO_EXAMPLES_KV_CONNECTION_H
#define TARVO_EXAMPLES_KV_CONNECTION_H

/// One client: its requests in, the answers out.
///
/// The reading direction takes in bytes and serves the whole requests among them; what it does not
/// finish within its quantum it leaves to its next turn. Answers that the client does not take at
/// once are kept and written when it does; while there are too many of them, nothing more is read
/// from it. A client that does nothing useful for a while is dropped.

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "Commands.h"
#include "Descriptor.h"
#include "Tarvo/TaskScheduler.h"
#include "Tarvo/Trace.h"

namespace kv {

class Connection;

/// Whoever owns the connections.
class Clients {
 public:
  virtual ~Clients() = default;
  /// The connection is over; letting go of it is all that is left to do.
  virtual void left(Connection& connection) = 0;
};

class Connection : public Tarvo::FileDescriptorTask, Tarvo::Debuggable {
 public:
  Connection(std::shared_ptr<Tarvo::TaskScheduler> scheduler, Descriptor socket, Commands& commands,
             Clients& clients, double idleSeconds, const Tarvo::Debuggable& trace);
  ~Connection() override;

  int fd() const { return socket_.get(); }

 private:
  class Idle;

  void taskExecuteReadable() override;
  void taskExecuteWritable() override;

  void serve();
  bool serveOne();
  bool takeIn();
  void refuse(std::string_view fault);
  void discardInput();
  void giveOut();
  void settle();
  void leave(const char* how);

  std::string_view unserved() const { return std::string_view(in_).substr(served_); }
  std::size_t unsent() const { return out_.size() - sent_; }

  Commands& commands_;
  Clients& clients_;
  double idleSeconds_;
  Descriptor socket_;
  std::shared_ptr<Idle> idle_;
  std::string in_;
  std::size_t served_ = 0;  // of in_
  std::string out_;
  std::size_t sent_ = 0;  // of out_
  bool starved_ = true;   // without more input there is nothing to serve
  bool drained_ = false;  // the socket had no more to give
  bool ended_ = false;    // the client has said all that it will
  bool broken_ = false;
  bool refused_ = false;  // the last answer says what is wrong
};

}  // namespace kv

#endif
