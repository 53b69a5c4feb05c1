#include "Report.h"

#include <fmt/format.h>

#include <cstdio>
#include <fstream>
#include <sstream>

namespace kv {

namespace {

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::trunc);
  file << text;
  if (!file.flush()) fmt::print(stderr, "cannot write {}\n", path);
}

}  // namespace

void printStore(const Store& store, const Background& background) {
  const auto megabytes = [](std::size_t bytes) { return static_cast<double>(bytes) / 1e6; };
  const auto digest = background.group().completedTaskStatForTest("digest");
  const unsigned rounds = background.digestRounds();
  fmt::print("data    {} keys, {:.1f} MB in {:.1f} MB of memory; {:.0f} MB of garbage given back\n",
             store.keyCount(), megabytes(store.valueBytes()), megabytes(store.log().bytes()),
             megabytes(store.freedBytes()));
  if (!digest || rounds == 0) {
    fmt::print("digest  no round over all data came to its end; {} values corrupt\n",
               background.corruptValues());
    return;
  }
  fmt::print("digest  {} rounds over all data, {:.1f} ms of work each; {} values corrupt\n", rounds,
             static_cast<double>(digest->taskTotalRunTime()) / 1e6 / rounds,
             background.corruptValues());
}

void leaveFiles(const Tarvo::TaskSchedulerRoot& root, const std::string& directory) {
  writeFile(directory + "/stats.json", root.statsRenderJson());
  writeFile(directory + "/timeline.json", root.timelineRenderJson());
}

std::string lastEvents(const Tarvo::TaskSchedulerRoot& root, std::size_t count) {
  std::istringstream text(root.historyRenderTextForDebugToString());
  constexpr std::size_t headerLines = 2;
  std::string events;
  std::string line;
  for (std::size_t number = 0; number < headerLines + count && std::getline(text, line); ++number) {
    if (number >= headerLines && !line.empty()) events += line + "\n";
  }
  return events;
}

}  // namespace kv
