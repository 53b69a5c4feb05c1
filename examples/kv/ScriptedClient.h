#ifndef TARVO_EXAMPLES_KV_SCRIPTEDCLIENT_H
#define TARVO_EXAMPLES_KV_SCRIPTEDCLIENT_H

#include <cstddef>
#include <memory>
#include <string>

#include "Socket.h"
#include "Tarvo/TaskScheduler.h"

namespace kv {

/// What an odd client does.
struct Script {
  std::string name;
  std::string says;
  double deafSeconds;   // for how long it reads nothing
  std::string expects;  // until the service closes the connection
};

class ScriptedClient;

class Audience {
 public:
  virtual ~Audience() = default;
  virtual void finished(ScriptedClient& client) = 0;
};

/// A client that says its text, perhaps reads nothing for a while, and then listens until it is
/// dropped.
class ScriptedClient : public Tarvo::FileDescriptorTask {
 public:
  ScriptedClient(std::shared_ptr<Tarvo::TaskScheduler> scheduler, int port, Script script,
                 Audience& audience);
  ~ScriptedClient() override;

  const std::string& name() const { return script_.name; }
  bool isRight() const { return right_ && heardBytes_ == script_.expects.size(); }
  std::size_t heardBytes() const { return heardBytes_; }
  /// How long it was connected.
  double seconds() const { return end_ - begin_; }

 private:
  class Deafness;

  void taskExecuteReadable() override;
  void taskExecuteWritable() override;

  Script script_;
  Audience& audience_;
  Socket socket_;
  std::size_t heardBytes_ = 0;
  bool right_ = true;  // so far
  Tarvo::Time begin_;
  Tarvo::Time end_ = 0;
  std::shared_ptr<Deafness> deafness_;
};

}  // namespace kv

#endif
