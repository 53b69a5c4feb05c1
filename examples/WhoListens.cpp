// Says which processes listen on a TCP port, in a task of low priority that looks at a few
// descriptors at a time. Usage: WhoListens [PORT]; without a port it opens one of its own.

#include <Tarvo/Owners.h>
#include <Tarvo/TaskScheduler.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstdlib>
#include <string>

struct WhoListens : Tarvo::Task {
  WhoListens(std::shared_ptr<Tarvo::TaskScheduler> scheduler, std::uint16_t port)
      : Task(scheduler, Tarvo::TaskPriority::low, "who listens"),
        search(Tarvo::OwnerSearch::ofPort(SOCK_STREAM, port)) {}
  void taskExecute() override {
    while (search.step(20)) {
      taskWorkCountInc(20);
      if (taskShouldYield()) return scheduleTask();
    }
    for (const auto& owner : search.owners()) {
      if (!owner.listening) continue;
      std::printf("process %d (%s) listens with descriptor %d\n", owner.process.pid(),
                  owner.process.title().value_or("ended").c_str(), owner.descriptor);
    }
    if (search.refused() > 0) std::printf("%zu could not be looked at\n", search.refused());
  }
  Tarvo::OwnerSearch search;
};

std::uint16_t ownPort() {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  socklen_t length = sizeof address;
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listen(fd, 1) != 0) std::perror("listen");
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  return ntohs(address.sin_port);
}

int main(int argc, char** argv) {
  const int port = argc > 1 ? std::atoi(argv[1]) : ownPort();
  if (port <= 0 || port > 65535) {
    std::fprintf(stderr, "usage: WhoListens [PORT]\n");
    return 2;
  }
  const auto question =
      std::make_shared<WhoListens>(Tarvo::schedulerRootTarvo(), static_cast<std::uint16_t>(port));
  question->scheduleTask();
  Tarvo::Platform::doEventLoop();
}
