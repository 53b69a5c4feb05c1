/// Sends files to LineService, many at a time, and checks each answer.
///
///     LineClient port connections rounds < list
///
/// Each line of the list is what `wc` prints of one file: "lines words bytes path". Every file is
/// sent `rounds` times, each time over a connection of its own. Exits non-zero when an answer was
/// wrong or missing.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <vector>

#include "Tarvo/Exception.h"
#include "Tarvo/Platform.h"

namespace {

namespace Platform = Tarvo::Platform;

struct File {
  std::string path;
  std::string contents;
  std::string expected;  // the right answer
};

class Upload;

/// Told when an upload is over.
class Collector {
 public:
  virtual ~Collector() = default;
  virtual void finished(Upload& upload) = 0;
};

/// One file over one connection: sends, shuts its side, reads the answer.
class Upload : Platform::FdEventHandler {
 public:
  Upload(int port, const File& file, Collector& collector)
      : file_(file), collector_(collector), fd_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd_ < 0 || connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      Tarvo::RuntimeException::throwException(std::string("connect: ") + std::strerror(errno));
    }
    events_ = Platform::getFdControl(this);
    events_->setWrites(true);
    events_->setFd(fd_);
  }
  Upload(const Upload&) = delete;
  Upload& operator=(const Upload&) = delete;
  ~Upload() override {
    events_.reset();
    close(fd_);
  }

  bool isRight() const { return answer_ == file_.expected; }
  const File& file() const { return file_; }
  const std::string& answer() const { return answer_; }

 private:
  void writeFdEvent(int fd) override {
    const ssize_t put =
        send(fd, file_.contents.data() + sent_, file_.contents.size() - sent_, MSG_NOSIGNAL);
    if (put > 0) sent_ += static_cast<std::size_t>(put);
    if (put < 0 && errno != EAGAIN && errno != EINTR) return finish();
    if (sent_ < file_.contents.size()) {
      events_->setWrites(true);
    } else {
      shutdown(fd, SHUT_WR);
    }
  }
  void readFdEvent(int fd) override {
    char buffer[256];
    const ssize_t got = read(fd, buffer, sizeof buffer);
    if (got > 0) answer_.append(buffer, static_cast<std::size_t>(got));
    if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) finish();
  }
  void finish() {
    events_->delFd();
    collector_.finished(*this);
  }

  const File& file_;
  Collector& collector_;
  int fd_;
  std::size_t sent_ = 0;
  std::string answer_;
  std::shared_ptr<Platform::FdControl> events_;
};

std::vector<File> readList(std::istream& list) {
  std::vector<File> files;
  for (std::string line; std::getline(list, line);) {
    std::istringstream words(line);
    std::string lines;
    std::string wordCount;
    std::string bytes;
    File file;
    words >> lines >> wordCount >> bytes >> std::ws;
    std::getline(words, file.path);
    std::ostringstream contents;
    contents << std::ifstream(file.path, std::ios::binary).rdbuf();
    file.contents = contents.str();
    file.expected = lines + " " + wordCount + " " + bytes + "\n";
    files.push_back(std::move(file));
  }
  return files;
}

/// Keeps a number of uploads going until each file was sent as often as wanted. Nothing tells the
/// loop to end: it returns when no upload is left to wait for.
class Client : Platform::CallbackHandler, Platform::TimeoutHandler, public Collector {
 public:
  Client(int port, std::size_t connections, std::size_t rounds, const std::vector<File>& files)
      : port_(port), connections_(connections), total_(files.size() * rounds), files_(files) {}

  int run() {
    const double begin = Tarvo::time();
    patience_->setTimeout(60);
    collect_->requestCallback();
    Platform::doEventLoop();
    report(Tarvo::time() - begin);
    return wrong_ == 0 && answers_ == total_ ? 0 : 1;
  }

 private:
  void finished(Upload& upload) override {
    done_.push_back(&upload);
    collect_->requestCallback();
  }

  // Runs outside the uploads' own handlers, so that they may be destroyed here.
  void callback() override {
    for (const Upload* upload : done_) {
      check(*upload);
      std::erase_if(running_, [upload](const auto& entry) { return entry.get() == upload; });
    }
    done_.clear();
    while (started_ < total_ && running_.size() < connections_) {
      running_.push_back(
          std::make_unique<Upload>(port_, files_[started_++ % files_.size()], *this));
    }
    if (running_.empty()) patience_->delTimeout();
  }

  void timeout() override {
    std::printf("gave up: %zu answers are missing\n", total_ - answers_);
    collect_->cancelCallback();
    running_.clear();
  }

  void check(const Upload& upload) {
    ++answers_;
    bytes_ += upload.file().contents.size();
    if (upload.isRight()) return;
    ++wrong_;
    std::printf("wrong answer for %s: got \"%s\", want \"%s\"\n", upload.file().path.c_str(),
                upload.answer().c_str(), upload.file().expected.c_str());
  }

  void report(double seconds) const {
    std::printf("%zu files, %zu answers, %zu wrong\n", files_.size(), answers_, wrong_);
    std::printf("%.1f MB in %.2f s: %.0f MB/s, %.0f connections/s, %zu at a time\n",
                static_cast<double>(bytes_) / 1e6, seconds,
                static_cast<double>(bytes_) / 1e6 / seconds,
                static_cast<double>(answers_) / seconds, connections_);
  }

  int port_;
  std::size_t connections_;
  std::size_t total_;
  const std::vector<File>& files_;
  std::size_t started_ = 0;
  std::size_t answers_ = 0;
  std::size_t wrong_ = 0;
  std::size_t bytes_ = 0;
  std::vector<std::unique_ptr<Upload>> running_;
  std::vector<Upload*> done_;  // over, but still in running_
  std::shared_ptr<Platform::CallbackControl> collect_ = Platform::getCallbackControl(this);
  std::shared_ptr<Platform::TimerControl> patience_ = Platform::getTimerControl(this);
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: LineClient port connections rounds < list-from-wc\n");
    return 2;
  }
  signal(SIGPIPE, SIG_IGN);
  try {
    const std::vector<File> files = readList(std::cin);
    if (files.empty()) {
      std::fprintf(stderr, "LineClient: the list is empty\n");
      return 2;
    }
    return Client(std::atoi(argv[1]), std::strtoul(argv[2], nullptr, 10),
                  std::strtoul(argv[3], nullptr, 10), files)
        .run();
  } catch (const Tarvo::Exception& e) {
    std::fprintf(stderr, "LineClient: %s\n", e.msg().c_str());
    return 1;
  }
}
