#ifndef TARVO_EXAMPLES_KV_ODDCLIENT_H
#define TARVO_EXAMPLES_KV_ODDCLIENT_H

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Client.h"
#include "Timer.h"

namespace kv {

/// A client that says its text, perhaps reads nothing for a while, and then listens until it is
/// dropped.
class OddClient : public Client {
 public:
  struct Script {
    const char* name;
    std::string says;
    double deafSeconds;   // for how long it reads nothing
    std::string expects;  // until the service closes the connection
  };

  /// Ways to behave badly.
  static std::vector<Script> scripts();

  OddClient(std::shared_ptr<Tarvo::TaskScheduler> scheduler, int port, Script script,
            std::function<void(OddClient&)> dropped);

  bool isRight() const { return right_ && heardBytes_ == script_.expects.size(); }
  /// What became of it, in a line.
  std::string text() const;

 private:
  void heard(std::string_view bytes) override;
  void closed() override { dropped_(*this); }

  Script script_;
  std::function<void(OddClient&)> dropped_;
  std::size_t heardBytes_ = 0;
  bool right_ = true;  // so far
  Tarvo::Time begin_;
  std::shared_ptr<Timer> deafness_;
};

}  // namespace kv

#endif
