// Sees from the writer's side how far a reader is behind. Usage: SlowReader [NAMESPACE]; with a
// name it also shows a socket made in that network namespace.

#include <Tarvo/Exception.h>
#include <Tarvo/Socket.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdio>

int main(int argc, char** argv) {
  try {
    if (argc > 1) {
      const int fd = Tarvo::Util::socketInNamespace(argv[1], AF_INET, SOCK_STREAM, 0);
      std::printf("descriptor %d is a socket of namespace %s\n", fd, argv[1]);
      close(fd);
    }
    std::array<int, 2> pair;
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()) != 0) return 1;
    std::printf("send buffer of %d bytes\n", Tarvo::Util::sendBufferSizeIs(pair[0], 100'000));
    std::array<char, 4000> block{};
    while (send(pair[0], block.data(), block.size(), MSG_DONTWAIT) > 0) {
    }
    std::printf("reader is behind: %s\n", Tarvo::Util::unsentBytes(pair[0]) > 0 ? "yes" : "no");
    while (recv(pair[1], block.data(), block.size(), MSG_DONTWAIT) > 0) {
    }
    std::printf("left to send: %d\n", Tarvo::Util::unsentBytes(pair[0]));
  } catch (const Tarvo::RuntimeException& e) {
    std::printf("%s\n", e.msg().c_str());
    return 1;
  }
}
