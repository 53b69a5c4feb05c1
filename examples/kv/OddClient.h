#ifndef TARVO_EXAMPLES_KV_ODDCLIENT_H
#define TARVO_EXAMPLES_KV_ODDCLIENT_H

#include <fmt/format.h>

#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "Client.h"
#include "Resp.h"
#include "Timer.h"

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
class OddClient : public Client {
 public:
  OddClient(std::shared_ptr<Tarvo::TaskScheduler> scheduler, int port, Script script)
      : Client(std::move(scheduler), port, "odd client"),
        script_(std::move(script)),
        deafness_(std::make_shared<Timer>(taskScheduler(), "deafness",
                                          [this] { taskWatchReadableIs(true); })) {
    unsent_ = script_.says;
    taskWatchReadableIs(false);
    deafness_->scheduleTaskDelay(script_.deafSeconds);
    send();
  }

  bool dropped() const { return taskWatchFd() < 0; }
  bool isRight() const { return dropped() && heard_ == script_.expects; }
  /// What became of it, in a line.
  std::string text() const {
    return fmt::format("{:<15} {} bytes of answers, dropped after {:.1f} s: {}", script_.name,
                       heard_.size(), end_ - begin_, isRight() ? "right" : "WRONG");
  }

 private:
  void heard(std::string_view bytes) override { heard_ += bytes; }
  void closed() override {
    end_ = Tarvo::time();
    taskWatchFdDel();
  }

  Script script_;
  std::string heard_;
  Tarvo::Time begin_ = Tarvo::time();
  Tarvo::Time end_ = 0;
  std::shared_ptr<Timer> deafness_;
};

}  // namespace kv

#endif
