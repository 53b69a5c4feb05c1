#ifndef TARVO_EXAMPLES_KV_ODDCLIENT_H
#define TARVO_EXAMPLES_KV_ODDCLIENT_H

#include <fmt/format.h>

#include <memory>
#include <string>
#include <utility>

#include "Resp.h"
#include "Timer.h"
#include "Wire.h"

namespace kv {

/// What an odd client does.
struct Script {
  const char* name;
  std::string says;
  double deafSeconds;   // for how long it reads nothing
  std::string expects;  // until the service closes the connection
};

inline Script halfRequest() {
  return {"half a request", "*3\r\n$3\r\nSET\r\n$4\r\nhalf\r\n$100\r\nonly so much", 0, ""};
}

inline Script nonsense() {
  const std::string more(1'000'000, 'y');  // which must not cost it the answer
  return {"nonsense", "GET nothing\r\nOPEN SESAME\r\n*1\r\n$x\r\n" + more, 0,
          "$-1\r\n-ERR unknown command 'OPEN'\r\n-ERR Protocol error: invalid bulk length\r\n"};
}

inline Script lateReader() {
  const std::string value(60'000, 'x');
  Script script{"reads late", "", 0.3, "+OK\r\n"};
  Writer says(script.says);
  Writer expects(script.expects);
  says.request({"SET", "late", value});
  for (int request = 0; request < 300; ++request) {
    says.request({"GET", "late"});
    expects.bulk(value);
  }
  says.request({"DEL", "late"});
  expects.integer(1);
  says.request({"QUIT"});
  expects.simple("OK");
  return script;
}

/// A client that says its text, perhaps reads nothing for a while, and then listens until it is
/// dropped.
class OddClient : public Wire {
 public:
  OddClient(std::shared_ptr<Tarvo::TaskScheduler> scheduler, int port, Script script)
      : Wire(std::move(scheduler), Tarvo::TaskPriority::normal, "odd client", connectTo(port)),
        script_(std::move(script)),
        deafness_(std::make_shared<Timer>(taskScheduler(), "deafness",
                                          [this] { taskWatchReadableIs(true); })) {
    out_ = script_.says;
    taskWatchReadableIs(false);
    deafness_->scheduleTaskDelay(script_.deafSeconds);
    flush();
  }

  bool dropped() const { return taskWatchFd() < 0; }
  bool isRight() const { return dropped() && in_ == script_.expects; }
  /// What became of it, in a line.
  std::string text() const {
    return fmt::format("{:<15} {} bytes of answers, dropped after {:.1f} s: {}", script_.name,
                       in_.size(), end_ - begin_, isRight() ? "right" : "WRONG");
  }

 private:
  void taskExecuteReadable() override {
    receive();
    if (otherEnd() == OtherEnd::open) return;
    end_ = Tarvo::time();
    taskWatchFdDel();
  }
  void taskExecuteWritable() override { flush(); }

  Script script_;
  Tarvo::Time begin_ = Tarvo::time();
  Tarvo::Time end_ = 0;
  std::shared_ptr<Timer> deafness_;
};

}  // namespace kv

#endif
