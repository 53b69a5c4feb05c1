/// An in-memory key-value service on one thread: tasks of high priority serve the clients, a task
/// group of low priority cleans up behind them.
///
///     KvService [idle-seconds [directory [port]]]
///
/// prints "port N", serves until SIGTERM, then tells what it did, and leaves stats.json and
/// timeline.json in the directory.
///
/// It speaks RESP2, so that redis-cli, redis-benchmark and the client libraries of redis work on
/// it; Commands.cpp has the table of what it understands. TRACE=Kv/01 shows clients coming and
/// going.

#include <fmt/format.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>

#include "Background.h"
#include "Commands.h"
#include "Descriptor.h"
#include "Listener.h"
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
  Service(double idleSeconds, std::string directory, int port)
      : directory_(std::move(directory)),
        signals_(std::make_shared<StopSignals>(root_)),
        background_(root_, store_),
        commands_(*root_, store_, background_),
        listener_(std::make_shared<kv::Listener>(root_, commands_, idleSeconds, port)) {
    if (!directory_.empty()) root_->historyEntryCountIs(20'000);  // the last second, about
  }

  /// Returns when it was told to stop.
  void run() {
    fmt::print("port {}\n", listener_->port());
    std::fflush(stdout);
    try {
      Tarvo::Platform::doEventLoop();
    } catch (const Stopped&) {
      lastEvents_ = lastEvents(12);  // before the end fills the history
      leaveFile("stats.json", root_->statsRenderJson());
      leaveFile("timeline.json", root_->timelineRenderJson());
    }
    listener_.reset();
    background_.stop();
    signals_.reset();
  }

  void report() const {
    root_->statsRenderTextForDebug(std::cout);
    std::cout << std::flush;
    const auto megabytes = [](std::size_t bytes) { return static_cast<double>(bytes) / 1e6; };
    fmt::print(
        "data    {} keys, {:.1f} MB in {:.1f} MB of memory; {:.0f} MB of garbage given back\n",
        store_.keyCount(), megabytes(store_.valueBytes()), megabytes(store_.log().bytes()),
        megabytes(store_.freedBytes()));
    const auto digest = background_.group().completedTaskStatForTest("digest");
    const double work = digest ? static_cast<double>(digest->taskTotalRunTime()) / 1e6 : 0;
    fmt::print("digest  {} rounds over all data in {:.1f} ms of work; {} values corrupt\n",
               background_.digestRounds(), work, background_.corruptValues());
    fmt::print("the last events, the newest first:\n{}", lastEvents_);
  }

 private:
  void leaveFile(const char* name, const std::string& text) const {
    if (directory_.empty()) return;
    std::ofstream file(directory_ + "/" + name, std::ios::trunc);
    file << text;
    if (!file.flush()) fmt::print(stderr, "cannot write {} in {}\n", name, directory_);
  }

  std::string lastEvents(int count) const {
    std::istringstream history(root_->historyRenderTextForDebugToString());
    std::string events;
    std::string line;
    for (int number = -2; number < count && std::getline(history, line); ++number) {
      if (number >= 0 && !line.empty()) events += line + "\n";  // behind two lines of heading
    }
    return events;
  }

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
  if (!(idleSeconds > 0) || argc > 4) {
    std::fprintf(stderr, "usage: KvService [idle-seconds [directory [port]]]\n");
    return 2;
  }
  try {
    Service service(idleSeconds, argc > 2 ? argv[2] : "", argc > 3 ? std::atoi(argv[3]) : 0);
    service.run();
    service.report();
    return 0;
  } catch (const Tarvo::Exception& e) {
    std::fprintf(stderr, "KvService: %s\n", e.msg().c_str());
    return 1;
  }
}
