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
#include <memory>
#include <string>

#include "Commands.h"
#include "Listener.h"
#include "Socket.h"
#include "Tarvo/TaskScheduler.h"
#include "Tarvo/Util.h"

namespace {

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
    Tarvo::Platform::stopEventLoop();
  }
  void taskExecuteWritable() override {}

  kv::Descriptor signals_;
};

/// Returns when it was told to stop.
void serve(double idleSeconds, const std::string& directory, int port) {
  kv::Service service;
  service.root->runSliceIs(100'000);  // whom the kernel reports may wait so long: 100 us
  const auto signals = std::make_shared<StopSignals>(service.root);
  auto listener = std::make_shared<kv::Listener>(service, idleSeconds, port);
  if (!directory.empty()) service.root->historyEntryCountIs(20'000);  // the last second, about
  fmt::print("port {}\n", listener->port());
  std::fflush(stdout);
  Tarvo::Platform::doEventLoop();
  if (!directory.empty()) {
    Tarvo::Util::fileWrite(directory + "/stats.json", service.root->statsRenderJson());
    Tarvo::Util::fileWrite(directory + "/timeline.json", service.root->timelineRenderJson());
  }
  listener.reset();
  fmt::print("{}", kv::describe(service));
}

}  // namespace

int main(int argc, char** argv) {
  const double idleSeconds = argc > 1 ? std::strtod(argv[1], nullptr) : 30.0;
  if (!(idleSeconds > 0) || argc > 4) {
    std::fprintf(stderr, "usage: KvService [idle-seconds [directory [port]]]\n");
    return 2;
  }
  try {
    serve(idleSeconds, argc > 2 ? argv[2] : "", argc > 3 ? std::atoi(argv[3]) : 0);
    return 0;
  } catch (const Tarvo::Exception& e) {
    std::fprintf(stderr, "KvService: %s\n", e.msg().c_str());
    return 1;
  }
}
