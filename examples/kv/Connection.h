#ifndef TARVO_EXAMPLES_KV_CONNECTION_H
#define TARVO_EXAMPLES_KV_CONNECTION_H

/// One client: its requests in, the answers out.
///
/// A run of the reading direction reads once, serves the whole requests among what it has, and
/// writes once; what it does not finish within its quantum it leaves to its next turn. Answers that
/// the client does not take at once are kept and written when it does; while there are too many of
/// them, nothing more is read from it. A client that does nothing useful for a while is dropped.

#include <functional>
#include <memory>

#include "Commands.h"
#include "Tarvo/TaskScheduler.h"
#include "Tarvo/Trace.h"
#include "Timer.h"
#include "Wire.h"

namespace kv {

class Connection : public Wire, Tarvo::Debuggable {
 public:
  /// Called when the connection is over: letting go of it is all that is left to do.
  using Left = std::function<void(Connection&)>;

  /// Drops a client that was idle for that long, and at the latest after twice the time.
  Connection(Service& service, Descriptor socket, double idleSeconds, Left left);
  ~Connection() override { --service_.clients; }

 private:
  void taskExecuteReadable() override;
  void taskExecuteWritable() override;

  void serve();
  bool serveNext(std::string_view& input);
  void answer();
  void idle();
  void leave(const char* how);

  Service& service_;
  Left left_;
  double idleSeconds_;
  std::shared_ptr<Timer> idleTimer_;
  Session session_;
  Words words_;          // of the request that is served
  bool starved_ = true;  // without more input there is nothing to serve
  bool active_ = false;  // since the idle timer expired last
};

}  // namespace kv

#endif
