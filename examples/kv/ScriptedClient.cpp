#include "ScriptedClient.h"

#include <utility>

namespace kv {

class ScriptedClient::Deafness : public Tarvo::TimerTask {
 public:
  Deafness(std::shared_ptr<Tarvo::TaskScheduler> scheduler, ScriptedClient& client)
      : TimerTask(std::move(scheduler), Tarvo::TaskPriority::normal, "deafness"), client_(client) {}

 private:
  void taskExecute() override { client_.taskWatchReadableIs(true); }

  ScriptedClient& client_;
};

ScriptedClient::ScriptedClient(std::shared_ptr<Tarvo::TaskScheduler> scheduler, int port,
                               Script script, Audience& audience)
    : FileDescriptorTask(std::move(scheduler), Tarvo::TaskPriority::normal, "odd client"),
      script_(std::move(script)),
      audience_(audience),
      socket_(port),
      begin_(Tarvo::time()),
      deafness_(std::make_shared<Deafness>(taskScheduler(), *this)) {
  socket_.put(script_.says);
  taskWatchReadableIs(false);
  taskWatchWritableIs(true);
  taskWatchFdIs(socket_.fd());
  deafness_->scheduleTaskDelay(script_.deafSeconds);
}

ScriptedClient::~ScriptedClient() { taskWatchFdDel(); }

void ScriptedClient::taskExecuteReadable() {
  std::string heard;
  const bool open = socket_.takeIn(heard);
  right_ = right_ && heardBytes_ <= script_.expects.size() &&
           script_.expects.compare(heardBytes_, heard.size(), heard) == 0;
  heardBytes_ += heard.size();
  if (open) return;
  end_ = Tarvo::time();
  audience_.finished(*this);
}

void ScriptedClient::taskExecuteWritable() {
  if (!socket_.flush()) taskWatchWritableIs(true);
}

}  // namespace kv
