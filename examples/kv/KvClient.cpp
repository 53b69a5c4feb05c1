/// Puts KvService under load and checks every answer.
///
///     KvClient port connections seconds < list
///
/// The list names files, whose contents become values, one path a line. The load is a mix of
/// requests, for so many seconds without the service's background work and for so many with it.
/// The service must be fresh and have no other clients.
/// Exits non-zero when an answer was wrong or missing. Phase.h tells what happens when.

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <vector>

#include "LoadTest.h"
#include "Project.h"
#include "Summary.h"
#include "Tarvo/Exception.h"

int main(int argc, char** argv) {
  const double seconds = argc == 4 ? std::strtod(argv[3], nullptr) : 0;
  const unsigned long connections = argc == 4 ? std::strtoul(argv[2], nullptr, 10) : 0;
  if (!(seconds > 0) || connections == 0) {
    std::fprintf(stderr, "usage: KvClient port connections seconds < list-of-files\n");
    return 2;
  }
  try {
    const std::vector<kv::File> files = kv::readFiles(std::cin);
    if (files.empty()) {
      std::fprintf(stderr, "KvClient: the list names no file\n");
      return 2;
    }
    kv::LoadTest test(std::atoi(argv[1]), static_cast<unsigned>(connections), seconds, files);
    const bool right = test.run();
    kv::printSummary(test);
    return right ? 0 : 1;
  } catch (const Tarvo::Exception& e) {
    std::fprintf(stderr, "KvClient: %s\n", e.msg().c_str());
    return 1;
  }
}
