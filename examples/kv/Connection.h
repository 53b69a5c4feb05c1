#ifndef TARVO_EXAMPLES_KV_CONNECTION_H
#define TARVO_EXAMPLES_KV_CONNECTION_H

/// One client: its requests in, the answers out.
///
/// A run of the reading direction reads once, serves the whole requests among what it has, and
/// writes once; what it does not finish within its quantum it leaves to its next turn. Answers that
/// the client does not take at once are kept and written when it does; while there are too many of
/// them, nothing more is read from it. A client that does nothing useful for a while is dropped.

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "Commands.h"
#include "Descriptor.h"
#include "Tarvo/TaskScheduler.h"
#include "Tarvo/Trace.h"
#include "Timer.h"

namespace kv {

class Connection : public Tarvo::FileDescriptorTask, Tarvo::Debuggable {
 public:
  /// Called when the connection is over: letting go of it is all that is left to do.
  using Left = std::function<void(Connection&)>;

  /// Drops a client that was idle for that long, and at the latest after twice the time.
  Connection(Service& service, Descriptor socket, double idleSeconds, Left left);
  ~Connection() override;

  int fd() const { return socket_.get(); }

 private:
  void taskExecuteReadable() override;
  void taskExecuteWritable() override;

  std::string_view takeIn();
  std::size_t serve(std::string_view input);
  void giveOut();
  void settle();
  void idle();
  void leave(const char* how);

  std::size_t unsent() const { return out_.size() - sent_; }

  Service& service_;
  Left left_;
  double idleSeconds_;
  Descriptor socket_;
  std::shared_ptr<Timer> idleTimer_;
  Session session_;
  Words words_;     // of the request that is served
  std::string in_;  // what was read and not served
  std::string out_;
  std::size_t sent_ = 0;  // of out_
  bool starved_ = true;   // without more input there is nothing to serve
  bool active_ = false;   // since the idle timer expired last
  bool ended_ = false;    // the client has said all that it will
  bool broken_ = false;
};

}  // namespace kv

#endif
