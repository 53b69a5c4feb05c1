// A descriptor task serves one end of a connection and sends back what it reads, however slowly the
// other end takes it.

#include <Tarvo/TaskScheduler.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <string>
#include <string_view>

struct Echo : Tarvo::FileDescriptorTask {
  Echo(std::shared_ptr<Tarvo::TaskScheduler> scheduler, int fd)
      : FileDescriptorTask(std::move(scheduler), Tarvo::TaskPriority::normal, "echo") {
    taskWatchFdIs(fd);
  }
  ~Echo() override {
    const int fd = taskWatchFd();
    taskWatchFdDel();  // before it is closed
    close(fd);
  }

  // As much as its quantum allows; what is left makes it run again.
  void taskExecuteReadable() override {
    std::array<char, 4096> bytes;
    do {
      const auto count = read(taskWatchFd(), bytes.data(), bytes.size());
      if (count == 0) return taskWatchReadableIs(false);  // end of file
      if (count < 0) break;                               // nothing left for now
      pending.append(bytes.data(), static_cast<std::size_t>(count));
      taskWorkCountInc(static_cast<unsigned long long>(count));
    } while (pending.size() < 65536 && !taskShouldYield());
    taskExecuteWritable();
  }

  void taskExecuteWritable() override {
    const auto count = send(taskWatchFd(), pending.data(), pending.size(), MSG_NOSIGNAL);
    if (count > 0) pending.erase(0, static_cast<std::size_t>(count));
    // Told once when there is room again; meanwhile nothing more is taken in.
    taskWatchReadableIs(pending.empty());
    if (!pending.empty()) taskWatchWritableIs(true);
  }

  std::string pending;
};

/// The other end: sends its lines and prints what comes back.
struct Client : Tarvo::FileDescriptorTask {
  Client(std::shared_ptr<Tarvo::TaskScheduler> scheduler, int fd)
      : FileDescriptorTask(std::move(scheduler), Tarvo::TaskPriority::low, "client") {
    taskWatchFdIs(fd);
    taskWatchWritableIs(true);
  }
  void taskExecuteWritable() override {
    constexpr std::string_view lines = "one\ntwo\nthree\n";
    left = lines.size();
    if (write(taskWatchFd(), lines.data(), lines.size()) < 0) std::perror("write");
  }
  void taskExecuteReadable() override {
    std::array<char, 4096> bytes;
    const auto count = read(taskWatchFd(), bytes.data(), bytes.size());
    if (count <= 0) return;
    std::fwrite(bytes.data(), 1, static_cast<std::size_t>(count), stdout);
    left -= static_cast<std::size_t>(count);
    if (left == 0) taskWatchFdDel();  // nothing more to wait for
  }
  std::size_t left = 0;
};

int main() {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) return 1;
  const auto scheduler = Tarvo::schedulerRootTarvo();
  const auto echo = std::make_shared<Echo>(scheduler, ends[0]);
  {
    const auto client = std::make_shared<Client>(scheduler, ends[1]);
    while (client->taskWatchFd() >= 0) Tarvo::Platform::doEventLoop(0.1);
  }
  close(ends[1]);
  std::printf("echoed %llu bytes in %u runs\n", echo->taskWorkCountReadableTotal(),
              echo->taskRunCount());
}
