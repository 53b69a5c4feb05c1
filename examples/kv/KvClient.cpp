/// Puts KvService under load and checks every answer.
///
///     KvClient port connections seconds < list
///
/// The list names files, whose contents become values, one path a line. The load is a mix of
/// requests, for so many seconds without the service's background work and for so many with it.
/// The service must be fresh and have no other clients.
/// Exits non-zero when an answer was wrong or missing. Worker.h tells what happens when.

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "LoadTest.h"
#include "Tarvo/Exception.h"

namespace {

constexpr std::size_t fileLimit = 500'000;
constexpr std::size_t sumLimit = 8'000'000;
constexpr std::size_t nameLimit = 200;

std::string keyOf(std::size_t number, std::string path) {
  if (path.size() > nameLimit) path.erase(0, path.size() - nameLimit);
  std::ranges::replace_if(
      path, [](unsigned char c) { return c <= ' ' || c == 0x7f; }, '_');
  return fmt::format("{}:{}", number, path);
}

/// Leaves out what cannot be read or is too large for the service, and what is beyond some
/// megabytes altogether.
std::vector<kv::File> readFiles(std::istream& list) {
  std::vector<kv::File> files;
  std::size_t sum = 0;
  for (std::string path; std::getline(list, path);) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream contents;
    if (!file) continue;
    contents << file.rdbuf();
    std::string bytes = contents.str();
    if (bytes.size() > fileLimit || sum + bytes.size() > sumLimit) continue;
    sum += bytes.size();
    files.push_back({keyOf(files.size(), path), std::move(bytes)});
  }
  return files;
}

}  // namespace

int main(int argc, char** argv) {
  const double seconds = argc == 4 ? std::strtod(argv[3], nullptr) : 0;
  const unsigned long connections = argc == 4 ? std::strtoul(argv[2], nullptr, 10) : 0;
  if (!(seconds > 0) || connections == 0) {
    std::fprintf(stderr, "usage: KvClient port connections seconds < list-of-files\n");
    return 2;
  }
  try {
    const std::vector<kv::File> files = readFiles(std::cin);
    if (files.empty()) {
      std::fprintf(stderr, "KvClient: the list names no file\n");
      return 2;
    }
    kv::LoadTest test(std::atoi(argv[1]), static_cast<unsigned>(connections), seconds, files);
    const bool right = test.run();
    test.printSummary();
    return right ? 0 : 1;
  } catch (const Tarvo::Exception& e) {
    std::fprintf(stderr, "KvClient: %s\n", e.msg().c_str());
    return 1;
  }
}
