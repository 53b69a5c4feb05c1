/// An in-memory key-value service on one thread: tasks of high priority serve the clients, a task
/// group of low priority cleans up behind them.
///
///     KvService [idle-seconds [directory]]
///
/// prints "port N", serves until SIGTERM, then tells what it did, and leaves stats.json and
/// timeline.json in the directory.
///
/// Request.h says what clients may ask. TRACE=Kv/01 shows clients coming and going.

#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>

#include "Background.h"
#include "Commands.h"
#include "Descriptor.h"
#include "Listener.h"
#include "Report.h"
#include "Store.h"
#include "Tarvo/TaskScheduler.h"

namespace {

/// Thrown out of the loop to end it.
struct Stopped {};

/// Turns SIGTERM and SIGINT into the end of the loop.
class StopSignals : public Tarvo::FileDescriptorTask {
 public:
  explicit StopSignals(std::shared_ptr<Tarvo::TaskScheduler> scheduler)
      : FileDescriptorTask(std::move(scheduler), Tarvo::TaskPriority::absolute, "signals"),
        signals_(open(), "signalfd") {
    taskWatchFdIs(signals_.get());
  }
  ~StopSignals() override { taskWatchFdDel(); }

 private:
  static int open() {
    sigset_t wanted;
    sigemptyset(&wanted);
    sigaddset(&wanted, SIGTERM);
    sigaddset(&wanted, SIGINT);
    sigprocmask(SIG_BLOCK, &wanted, nullptr);
    return signalfd(-1, &wanted, SFD_CLOEXEC);
  }
  void taskExecuteReadable() override {
    signalfd_siginfo signal;
    if (read(signals_.get(), &signal, sizeof signal) != sizeof signal) return;
    taskWorkCountInc(1);
    throw Stopped();
  }
  void taskExecuteWritable() override {}

  kv::Descriptor signals_;
};

class Service {
 public:
  Service(double idleSeconds, std::string directory)
      : directory_(std::move(directory)),
        signals_(std::make_shared<StopSignals>(root_)),
        background_(root_, store_),
        commands_(store_, background_),
        listener_(std::make_shared<kv::Listener>(root_, commands_, idleSeconds)) {
    if (!directory_.empty()) root_->historyEntryCountIs(20'000);  // the last second, about
  }

  /// Returns when it was told to stop.
  void run() {
    std::printf("port %d\n", listener_->port());
    std::fflush(stdout);
    try {
      Tarvo::Platform::doEventLoop();
    } catch (const Stopped&) {
      lastEvents_ = kv::lastEvents(*root_, 12);  // before the end fills the history
      if (!directory_.empty()) kv::leaveFiles(*root_, directory_);
    }
    listener_.reset();
    background_.stop();
    signals_.reset();
  }

  void report() const {
    root_->statsRenderTextForDebug(std::cout);
    std::cout << std::flush;
    kv::printStore(store_, background_);
    std::printf("the last events, the newest first:\n%s", lastEvents_.c_str());
  }

 private:
  std::string directory_;
  std::shared_ptr<Tarvo::TaskSchedulerRoot> root_ = Tarvo::schedulerRootTarvo();
  std::shared_ptr<StopSignals> signals_;
  kv::Store store_;
  kv::Background background_;
  kv::Commands commands_;
  std::shared_ptr<kv::Listener> listener_;
  std::string lastEvents_;
};

}  // namespace

int main(int argc, char** argv) {
  const double idleSeconds = argc > 1 ? std::strtod(argv[1], nullptr) : 30.0;
  if (!(idleSeconds > 0) || argc > 3) {
    std::fprintf(stderr, "usage: KvService [idle-seconds [directory]]\n");
    return 2;
  }
  try {
    Service service(idleSeconds, argc > 2 ? argv[2] : "");
    service.run();
    service.report();
    return 0;
  } catch (const Tarvo::Exception& e) {
    std::fprintf(stderr, "KvService: %s\n", e.msg().c_str());
    return 1;
  }
}
