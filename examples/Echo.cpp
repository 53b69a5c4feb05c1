// A descriptor task serves one end of a connection and sends back what it reads, however slowly the
// other end takes it.

#include <Tarvo/MakeTask.h>
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

int main() {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) return 1;
  const auto root = Tarvo::schedulerRootTarvo();
  const auto echo = std::make_shared<Echo>(root, ends[0]);
  constexpr std::string_view lines = "one\ntwo\nthree\n";
  if (write(ends[1], lines.data(), lines.size()) < 0) std::perror("write");
  {
    const auto client = Tarvo::makeDescriptorTask(
        root, Tarvo::TaskPriority::low, "client", ends[1],
        [left = lines.size()](Tarvo::FileDescriptorTask& self) mutable {
          std::array<char, 4096> bytes;
          const auto count = read(self.taskWatchFd(), bytes.data(), bytes.size());
          if (count <= 0) return;
          std::fwrite(bytes.data(), 1, static_cast<std::size_t>(count), stdout);
          left -= static_cast<std::size_t>(count);
          if (left == 0) Tarvo::Platform::stopEventLoop();
        });
    Tarvo::Platform::doEventLoop();
  }
  close(ends[1]);
  std::printf("echoed %llu bytes in %u runs\n", echo->taskWorkCountReadableTotal(),
              echo->taskRunCount());
}
