#ifndef TARVO_EXAMPLES_KV_LISTENER_H
#define TARVO_EXAMPLES_KV_LISTENER_H

#include <map>
#include <memory>

#include "Connection.h"
#include "Descriptor.h"
#include "Tarvo/TaskScheduler.h"
#include "Tarvo/Trace.h"
#include "Timer.h"

namespace kv {

/// Accepts clients on a port of the loopback interface, any free one for port 0, and owns their
/// connections.
class Listener : public Tarvo::FileDescriptorTask, Tarvo::Debuggable {
 public:
  Listener(const std::shared_ptr<Tarvo::TaskScheduler>& scheduler, Commands& commands,
           double idleSeconds, int port);
  ~Listener() override;

  int port() const;

 private:
  void taskExecuteReadable() override;
  void taskExecuteWritable() override {}
  void admit(Descriptor socket);
  void acceptFailed(int error);
  void left(Connection& connection);
  void pause();
  void resume();

  Commands& commands_;
  double idleSeconds_;
  Descriptor socket_;
  std::map<int, std::shared_ptr<Connection>> connections_;
  std::shared_ptr<Timer> retry_;
};

}  // namespace kv

#endif
