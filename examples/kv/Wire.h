#ifndef TARVO_EXAMPLES_KV_WIRE_H
#define TARVO_EXAMPLES_KV_WIRE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "Socket.h"
#include "Tarvo/TaskScheduler.h"

namespace kv {

/// One end of a connection, the service's or a client's: what came and is not used up, and what is
/// to be sent.
class Wire : public Tarvo::FileDescriptorTask {
 public:
  Wire(std::shared_ptr<Tarvo::TaskScheduler> scheduler, Tarvo::TaskPriority priority,
       Tarvo::String name, Descriptor socket);
  ~Wire() override { taskWatchFdDel(); }

  int fd() const { return socket_.get(); }

 protected:
  enum class OtherEnd : std::uint8_t { open, saidAll, gone };

  /// Reads once, to the end of `in_`.
  void receive();
  /// Sends what it can; taskExecuteWritable() is called when there is room for the rest. Whether
  /// anything was sent.
  bool flush();

  std::size_t unsent() const { return out_.size() - sent_; }
  OtherEnd otherEnd() const { return otherEnd_; }

  std::string in_;
  std::string out_;

 private:
  void noteFailure(ssize_t result);

  Descriptor socket_;
  std::size_t sent_ = 0;  // of out_
  OtherEnd otherEnd_ = OtherEnd::open;
};

/// Empties a buffer, and gives its memory back when that is much.
void giveBack(std::string& buffer);

}  // namespace kv

#endif
