#include "OddClient.h"

#include <fmt/format.h>

#include <utility>

#include "Resp.h"

namespace kv {

namespace {

OddClient::Script nonsense() {
  const std::string more(1'000'000, 'y');  // which must not cost it the answer
  return {"nonsense", "GET nothing\r\nOPEN SESAME\r\n*1\r\n$x\r\n" + more, 0,
          "$-1\r\n-ERR unknown command 'OPEN'\r\n-ERR Protocol error: invalid bulk length\r\n"};
}

OddClient::Script lateReader() {
  const std::string value(60'000, 'x');
  OddClient::Script script{"reads late", "", 0.3, "+OK\r\n"};
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

}  // namespace

std::vector<OddClient::Script> OddClient::scripts() {
  return {{"half a request", "*3\r\n$3\r\nSET\r\n$4\r\nhalf\r\n$100\r\nonly so much", 0, ""},
          nonsense(),
          lateReader()};
}

OddClient::OddClient(std::shared_ptr<Tarvo::TaskScheduler> scheduler, int port, Script script,
                     std::function<void(OddClient&)> dropped)
    : Client(std::move(scheduler), port, "odd client"),
      script_(std::move(script)),
      dropped_(std::move(dropped)),
      begin_(Tarvo::time()),
      deafness_(std::make_shared<Timer>(taskScheduler(), "deafness",
                                        [this] { taskWatchReadableIs(true); })) {
  unsent_ = script_.says;
  taskWatchReadableIs(false);
  deafness_->scheduleTaskDelay(script_.deafSeconds);
  send();
}

void OddClient::heard(std::string_view bytes) {
  right_ = right_ && heardBytes_ <= script_.expects.size() &&
           script_.expects.compare(heardBytes_, bytes.size(), bytes) == 0;
  heardBytes_ += bytes.size();
}

std::string OddClient::text() const {
  return fmt::format("{:<15} {} bytes of answers, dropped after {:.1f} s: {}", script_.name,
                     heardBytes_, Tarvo::time() - begin_, isRight() ? "right" : "WRONG");
}

}  // namespace kv
