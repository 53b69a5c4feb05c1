#include "Project.h"

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <sstream>

namespace kv {

namespace {

constexpr std::size_t fileLimit = 500'000;
constexpr std::size_t sumLimit = 8'000'000;
constexpr std::size_t nameLimit = 200;

std::string keyOf(std::size_t number, std::string path) {
  if (path.size() > nameLimit) path.erase(0, path.size() - nameLimit);
  std::ranges::replace_if(
      path, [](char c) { return static_cast<unsigned char>(c) <= ' ' || c == 0x7f; }, '_');
  return fmt::format("{}:{}", number, path);
}

}  // namespace

std::vector<File> readFiles(std::istream& list) {
  std::vector<File> files;
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

}  // namespace kv
