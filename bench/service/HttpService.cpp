/// A small HTTP server on one thread, on the loop that is named: HttpService LOOP

#include <event2/event.h>
#include <event2/event_struct.h>
#include <unistd.h>

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <cstdio>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "Responder.h"
#include "Tarvo/TaskScheduler.h"

namespace {

using bench::Readable;
namespace Platform = Tarvo::Platform;

class Task : public Tarvo::FileDescriptorTask {
 public:
  static void watch(int fd, Readable readable) {
    all.emplace(fd, std::make_shared<Task>(fd, std::move(readable)));
  }
  Task(int fd, Readable readable)
      : FileDescriptorTask(Tarvo::schedulerRootTarvo(), Tarvo::TaskPriority::normal, "http"),
        readable_(std::move(readable)) {
    taskWatchFdIs(fd);
  }

 private:
  void taskExecuteReadable() override {
    if (readable_()) return;
    const int fd = taskWatchFd();
    taskWatchFdDel();
    all.erase(fd);
    close(fd);
  }
  void taskExecuteWritable() override {}

  static inline std::unordered_map<int, std::shared_ptr<Task>> all;
  Readable readable_;
};

/// Owns itself, as do those below.
class Handler : Platform::FdEventHandler {
 public:
  static void watch(int fd, Readable readable) {
    (new Handler(std::move(readable)))->control_->setFd(fd);
  }

 private:
  explicit Handler(Readable readable) : readable_(std::move(readable)) {}
  void readFdEvent(int fd) override {
    if (readable_()) return;
    control_->delFd();
    close(fd);
    delete this;
  }
  void writeFdEvent(int) override {}

  Readable readable_;
  std::shared_ptr<Platform::FdControl> control_ = Platform::getFdControl(this);
};

class Event {
 public:
  static event_base* base() {
    static event_base* const only = event_base_new();
    return only;
  }
  static void watch(int fd, Readable readable) {
    auto* self = new Event{std::move(readable), {}};
    event_assign(&self->event_, base(), fd, EV_READ | EV_PERSIST, isReadable, self);
    event_add(&self->event_, nullptr);
  }

  static void isReadable(int fd, short, void* arg) {
    auto* self = static_cast<Event*>(arg);
    if (self->readable_()) return;
    event_del(&self->event_);
    close(fd);
    delete self;
  }

  Readable readable_;
  event event_;
};

class Wait {
 public:
  static asio::io_context& context() {
    static asio::io_context only(1);
    return only;
  }
  static void watch(int fd, Readable readable) {
    (new Wait{std::move(readable), {context(), fd}})->wait();
  }

  void wait() {
    descriptor_.async_wait(descriptor_.wait_read, [this](const asio::error_code& error) {
      if (!error && readable_()) return wait();
      delete this;
    });
  }

  Readable readable_;
  asio::posix::stream_descriptor descriptor_;  // which closes it
};

struct Loop {
  std::string_view name;
  bench::Watch watch;
  void (*run)();
};

}  // namespace

int main(int argc, char** argv) {
  const std::string_view wanted = argc == 2 ? argv[1] : "";
  for (const Loop& loop : {
           Loop{"tasks", Task::watch, [] { Platform::doEventLoop(); }},
           Loop{"controls", Handler::watch, [] { Platform::doEventLoop(); }},
           Loop{"libevent", Event::watch, [] { event_base_dispatch(Event::base()); }},
           Loop{"asio", Wait::watch, [] { Wait::context().run(); }},
       }) {
    if (wanted != loop.name) continue;
    bench::respond(loop.watch);
    loop.run();
  }
  std::fprintf(stderr, "usage: HttpService tasks|controls|libevent|asio\n");
  return 2;
}
