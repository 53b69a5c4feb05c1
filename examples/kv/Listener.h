#ifndef TARVO_EXAMPLES_KV_LISTENER_H
#define TARVO_EXAMPLES_KV_LISTENER_H

#include <map>
#include <memory>

#include "Connection.h"
#include "Descriptor.h"
#include "Tarvo/TaskScheduler.h"
#include "Tarvo/Trace.h"

namespace kv {

/// Accepts clients on a port of the loopback interface and owns their connections.
class Listener : public Tarvo::FileDescriptorTask, public Clients, public Tarvo::Debuggable {
 public:
  Listener(const std::shared_ptr<Tarvo::TaskScheduler>& scheduler, Commands& commands,
           double idleSeconds);
  ~Listener() override;

  int port() const;
  unsigned int acceptedCount() const { return acceptedCount_; }

 private:
  class Retry;

  void taskExecuteReadable() override;
  void taskExecuteWritable() override {}
  void admit(Descriptor socket);
  void acceptFailed(int error);
  void left(Connection& connection) override;
  void pause();
  void resume();

  Commands& commands_;
  double idleSeconds_;
  Descriptor socket_;
  unsigned int acceptedCount_ = 0;
  std::map<int, std::shared_ptr<Connection>> connections_;
  std::shared_ptr<Retry> retry_;
};

}  // namespace kv

#endif
