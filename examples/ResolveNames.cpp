// Resolves the names of the command line beside each other, without a stop of the event loop: the C
// library's getaddrinfo() waits, so it does that on the threads of a pool.

#include <Tarvo/BlockingPool.h>
#include <Tarvo/Platform.h>
#include <Tarvo/TaskScheduler.h>
#include <netdb.h>
#include <sys/socket.h>

#include <array>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

/// The addresses of a host, as text. Waits.
std::vector<std::string> addressesOf(const std::string& name) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (const int error = getaddrinfo(name.c_str(), nullptr, &hints, &found); error != 0)
    throw std::runtime_error(gai_strerror(error));
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> all(found, freeaddrinfo);
  std::vector<std::string> texts;
  for (const addrinfo* each = found; each != nullptr; each = each->ai_next) {
    std::array<char, NI_MAXHOST> text{};
    if (getnameinfo(each->ai_addr, each->ai_addrlen, text.data(), text.size(), nullptr, 0,
                    NI_NUMERICHOST) == 0)
      texts.emplace_back(text.data());
  }
  return texts;
}

int main(int argc, char** argv) {
  std::vector<std::string> names(argv + 1, argv + argc);
  if (names.empty()) names = {"localhost", "127.0.0.1"};
  Tarvo::BlockingPool pool(2, "names");
  std::vector<std::shared_ptr<Tarvo::BlockingWork>> lookups;
  for (const std::string& name : names) {
    lookups.push_back(pool.run([name] { return addressesOf(name); }, Tarvo::schedulerRootTarvo(),
                               Tarvo::TaskPriority::normal, name,
                               [name](auto result) {
                                 try {
                                   for (const std::string& address : result.get())
                                     std::printf("%s is %s\n", name.c_str(), address.c_str());
                                 } catch (const std::exception& error) {
                                   std::printf("%s: %s\n", name.c_str(), error.what());
                                 }
                               }));
  }
  Tarvo::Platform::doEventLoop();  // until each has its answer
  std::puts(pool.figures().toString().c_str());
}
