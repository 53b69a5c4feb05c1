#ifndef TARVO_EXAMPLES_KV_CLIENT_H
#define TARVO_EXAMPLES_KV_CLIENT_H

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "Descriptor.h"
#include "Tarvo/TaskScheduler.h"

namespace kv {

/// The client's end of a connection to the service.
class Client : public Tarvo::FileDescriptorTask {
 public:
  /// Connects; throws when that fails.
  Client(std::shared_ptr<Tarvo::TaskScheduler> scheduler, int port, const char* name);
  ~Client() override;

 protected:
  /// Sends what stands in `unsent_`, now or when the kernel takes it.
  void send();
  virtual void heard(std::string_view bytes) = 0;
  /// Nothing more will be heard.
  virtual void closed() = 0;

  std::string unsent_;

 private:
  void taskExecuteReadable() override;
  void taskExecuteWritable() override { send(); }

  Descriptor socket_;
  std::size_t sent_ = 0;  // of unsent_
};

}  // namespace kv

#endif
