// Keeps a worker process running: passes on what it says, and starts it again when it has ended,
// each time a little later. Gives up after the third time.

#include <Tarvo/ChildProcess.h>
#include <Tarvo/FileDescriptorTask.h>
#include <Tarvo/TaskScheduler.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>

using std::chrono::milliseconds;
using Tarvo::TaskPriority;

/// Prints what comes through a pipe, up to its end.
struct Output : Tarvo::FileDescriptorTask {
  explicit Output(const std::shared_ptr<Tarvo::TaskScheduler>& scheduler)
      : FileDescriptorTask(scheduler, TaskPriority::normal, "output") {}
  ~Output() override { pipeIs(-1); }

  /// Takes the pipe over.
  void pipeIs(int fd) {
    if (const int before = taskWatchFd(); before >= 0) {
      taskWatchFdDel();
      close(before);
    }
    if (fd >= 0) taskWatchFdIs(fd);
  }
  /// Prints what is there now.
  void passOn() {
    std::array<char, 4096> bytes;
    ssize_t count = 0;
    while ((count = read(taskWatchFd(), bytes.data(), bytes.size())) > 0)
      std::printf("it says: %.*s", static_cast<int>(count), bytes.data());
    if (count == 0) pipeIs(-1);
  }
  void taskExecuteReadable() override { passOn(); }
  void taskExecuteWritable() override {}
};

struct Worker : Tarvo::ChildProcess {
  explicit Worker(const std::shared_ptr<Tarvo::TaskScheduler>& scheduler)
      : ChildProcess(scheduler, TaskPriority::normal, "worker"),
        output(std::make_shared<Output>(scheduler)) {}

  void start() {
    Tarvo::ChildCommand command{.argv = {"sh", "-c", "echo at work; exit 1"}};
    command.in = Tarvo::ChildStream::null();
    command.out = Tarvo::ChildStream::pipe();
    ChildProcess::start(command);
    output->pipeIs(takeOut());
  }
  void taskExecuteEnd(const Tarvo::ChildEnd& end) override {
    output->passOn();  // what it said at last
    std::printf("the worker %s\n", end.toString().c_str());
    if (++ends < 3) again->scheduleTaskDelay(milliseconds(10) * ends);
  }

  /// Begins again.
  struct Again : Tarvo::TimerTask {
    explicit Again(Worker& toStart)
        : TimerTask(toStart.taskScheduler(), TaskPriority::normal, "again"), worker(toStart) {}
    void taskExecute() override { worker.start(); }
    Worker& worker;
  };
  const std::shared_ptr<Output> output;
  const std::shared_ptr<Again> again = std::make_shared<Again>(*this);
  int ends = 0;
};

int main() {
  const auto worker = std::make_shared<Worker>(Tarvo::schedulerRootTarvo());
  worker->start();
  Tarvo::Platform::doEventLoop();  // until there is neither a child nor a timer
}
