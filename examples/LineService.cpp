/// A TCP service on the event loop: counts the lines, words and bytes that each client sends until
/// it shuts its side, answers with "lines words bytes" and closes. Clients that send nothing for a
/// while are dropped.
///
///     LineService [idle-seconds]     prints "port N", serves until SIGTERM
///
/// One thread serves everybody. Each connection is an object with a descriptor control and a timer
/// control; a callback control buries the connections that are done, outside their own handlers.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <vector>

#include "LineCount.h"
#include "Tarvo/Exception.h"
#include "Tarvo/Platform.h"
#include "Tarvo/Trace.h"

namespace {

namespace Platform = Tarvo::Platform;

[[noreturn]] void failWith(const char* what) {
  Tarvo::RuntimeException::throwException(fmt::format("{}: {}", what, std::strerror(errno)));
}

/// A descriptor that is closed with its owner.
class Descriptor {
 public:
  explicit Descriptor(int fd, const char* what) : fd_(fd) {
    if (fd_ < 0) failWith(what);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() { close(fd_); }
  int get() const { return fd_; }

 private:
  int fd_;
};

class Connection;

/// What a connection needs of its service.
class Undertaker {
 public:
  virtual ~Undertaker() = default;
  /// The connection is done; it is destroyed soon, when none of its handlers is running.
  virtual void finished(Connection& connection) = 0;
};

class Connection : Platform::FdEventHandler, Platform::TimeoutHandler, Tarvo::Debuggable {
 public:
  Connection(int fd, double idleSeconds, const Tarvo::Debuggable& trace, Undertaker& undertaker)
      : Debuggable(trace),
        undertaker_(undertaker),
        idleSeconds_(idleSeconds),
        socket_(fd, "accept"),
        events_(Platform::getFdControl(this)),
        idleTimer_(Platform::getTimerControl(this)) {
    events_->setFd(fd);
    idleTimer_->setTimeout(idleSeconds_);
  }

  int fd() const { return socket_.get(); }
  const LineCount& count() const { return count_; }

 private:
  void readFdEvent(int fd) override {
    static std::array<char, 65536> buffer;  // one thread, and nothing stays in it
    const ssize_t got = read(fd, buffer.data(), buffer.size());
    if (got > 0) {
      count_.add({buffer.data(), static_cast<std::size_t>(got)});
      idleTimer_->setTimeout(idleSeconds_);
    } else if (got == 0) {
      answer_ = fmt::format("{} {} {}\n", count_.lines(), count_.words(), count_.bytes());
      events_->setReads(false);
      events_->setWrites(true);
    } else if (errno != EAGAIN && errno != EINTR) {
      failWith("read");
    }
  }

  void writeFdEvent(int fd) override {
    const ssize_t put = write(fd, answer_.data(), answer_.size());
    if (put < 0 && errno != EAGAIN && errno != EINTR) failWith("write");
    if (put > 0) answer_.erase(0, static_cast<std::size_t>(put));
    if (!answer_.empty()) {
      events_->setWrites(true);
    } else {
      finish("answered");
    }
  }

  // A broken connection is that client's affair and must not end the service.
  bool handleFdException(int) override {
    try {
      throw;
    } catch (const Tarvo::RuntimeException& e) {
      TARVO_TRACE(*this, 0, "{}", e.msg());
      finish("broken");
      return true;
    } catch (...) {
      return false;
    }
  }

  void timeout() override { finish("idle, dropped"); }

  void finish(const char* how) {
    TARVO_TRACE(*this, 1, "client {}: {} after {} bytes", fd(), how, count_.bytes());
    events_->delFd();
    idleTimer_->delTimeout();
    undertaker_.finished(*this);
  }

  Undertaker& undertaker_;
  double idleSeconds_;
  LineCount count_;
  Tarvo::String answer_;  // what of it is still to be sent
  Descriptor socket_;
  std::shared_ptr<Platform::FdControl> events_;
  std::shared_ptr<Platform::TimerControl> idleTimer_;
};

class Service : Platform::FdEventHandler,
                Platform::CallbackHandler,
                public Undertaker,
                public Tarvo::Debuggable {
 public:
  explicit Service(double idleSeconds)
      : Debuggable("LineService"),
        idleSeconds_(idleSeconds),
        listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket"),
        accepts_(Platform::getFdControl(this)),
        burial_(Platform::getCallbackControl(this)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* raw = reinterpret_cast<sockaddr*>(&address);
    if (bind(listener_.get(), raw, size) != 0) failWith("bind");
    if (listen(listener_.get(), 64) != 0) failWith("listen");
    if (getsockname(listener_.get(), raw, &size) != 0) failWith("getsockname");
    port_ = ntohs(address.sin_port);
    accepts_->setFd(listener_.get());
    TARVO_TRACE(*this, 0, "serving on port {}, idle limit {} s", port_, idleSeconds_);
  }

  ~Service() override {
    TARVO_TRACE(*this, 0, "served {} clients, {} lines, {} bytes", clients_, lines_, bytes_);
  }

  int port() const { return port_; }

 private:
  void readFdEvent(int fd) override {
    const int client = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) return acceptFailed();
    connections_.emplace(client, std::make_unique<Connection>(client, idleSeconds_, *this, *this));
    TARVO_TRACE(*this, 1, "client {}: accepted, {} connected", client, connections_.size());
  }
  void writeFdEvent(int) override {}

  void acceptFailed() {
    if (errno == EMFILE || errno == ENFILE) {
      // The waiting client would be reported again and again: look away until one has left.
      TARVO_TRACE(*this, 0, "no descriptor for another client, {} connected", connections_.size());
      accepts_->setReads(false);
    } else if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) {
      failWith("accept");
    }
  }

  void finished(Connection& connection) override {
    ++clients_;
    lines_ += connection.count().lines();
    bytes_ += connection.count().bytes();
    done_.push_back(connection.fd());
    burial_->requestCallback();
  }
  void callback() override {
    for (const int fd : done_) connections_.erase(fd);
    done_.clear();
    accepts_->setReads(true);
  }

  double idleSeconds_;
  Descriptor listener_;
  int port_ = 0;
  std::uint64_t clients_ = 0;
  std::uint64_t lines_ = 0;
  std::uint64_t bytes_ = 0;
  std::map<int, std::unique_ptr<Connection>> connections_;
  std::vector<int> done_;  // descriptors of connections to be destroyed
  std::shared_ptr<Platform::FdControl> accepts_;
  std::shared_ptr<Platform::CallbackControl> burial_;
};

/// Thrown out of the loop to end it.
struct Stopped {};

/// Turns SIGTERM and SIGINT into an event of the loop.
class StopSignal : Platform::FdEventHandler {
 public:
  StopSignal() : signals_(open(), "signalfd"), events_(Platform::getFdControl(this)) {
    events_->setFd(signals_.get());
  }

 private:
  static int open() {
    sigset_t wanted;
    sigemptyset(&wanted);
    sigaddset(&wanted, SIGTERM);
    sigaddset(&wanted, SIGINT);
    sigprocmask(SIG_BLOCK, &wanted, nullptr);
    return signalfd(-1, &wanted, SFD_CLOEXEC);
  }
  void readFdEvent(int) override { throw Stopped(); }
  void writeFdEvent(int) override {}

  Descriptor signals_;
  std::shared_ptr<Platform::FdControl> events_;
};

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  const double idleSeconds = argc > 1 ? std::strtod(argv[1], nullptr) : 30.0;
  if (!(idleSeconds > 0)) {
    std::fprintf(stderr, "usage: LineService [idle-seconds]\n");
    return 2;
  }
  try {
    StopSignal stop;
    Service service(idleSeconds);
    std::printf("port %d\n", service.port());
    std::fflush(stdout);
    Platform::doEventLoop();
  } catch (const Stopped&) {
    return 0;
  } catch (const Tarvo::Exception& e) {
    std::fprintf(stderr, "LineService: %s\n", e.msg().c_str());
    return 1;
  }
}
