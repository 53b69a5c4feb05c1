#ifndef TARVO_EXAMPLES_KV_SOCKET_H
#define TARVO_EXAMPLES_KV_SOCKET_H

#include <string>

#include "Descriptor.h"

namespace kv {

/// The client's end of a connection to the service.
class Socket {
 public:
  /// Connects; throws when that fails.
  explicit Socket(int port);
  int fd() const { return descriptor_.get(); }

  /// Takes `text` to be sent.
  void put(const std::string& text) { unsent_ += text; }
  /// Sends what the kernel takes; true when nothing is left.
  bool flush();
  /// Appends what has come to `in`; false when nothing more will come.
  bool takeIn(std::string& in);

 private:
  Descriptor descriptor_;
  std::string unsent_;
  std::size_t sent_ = 0;  // of unsent_
};

}  // namespace kv

#endif
