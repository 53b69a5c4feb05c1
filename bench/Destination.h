#ifndef TARVO_BENCH_DESTINATION_H
#define TARVO_BENCH_DESTINATION_H

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <filesystem>
#include <string>

/// Where the lines of a row go: a path that writers open for themselves.
class Destination {
 public:
  static Destination null() { return Destination("/dev/null", false); }
  /// A file of its own in the temporary directory, that goes with the object.
  static Destination file() {
    const auto name = "tarvo-bench." + std::to_string(getpid());
    return Destination((std::filesystem::temp_directory_path() / name).string(), true);
  }
  Destination(const Destination&) = delete;
  Destination& operator=(const Destination&) = delete;
  ~Destination() {
    if (isFile_) unlink(path_.c_str());
  }

  const std::string& path() const { return path_; }

  /// Measures `writeLine()`. Now and then, while the clock stands, the file is emptied, so that a
  /// long run does not fill the disk; writers append and do not notice.
  template <typename WriteLine>
  void measure(benchmark::State& state, WriteLine writeLine) const {
    constexpr int linesAtMost = 1 << 18;
    int lines = 0;
    for (auto _ : state) {
      writeLine();
      if (++lines < linesAtMost) [[likely]]
        continue;
      lines = 0;
      state.PauseTiming();
      if (isFile_ && truncate(path_.c_str(), 0) != 0) state.SkipWithError("cannot cut the file");
      state.ResumeTiming();
    }
  }

 private:
  Destination(std::string path, bool isFile) : path_(std::move(path)), isFile_(isFile) {}

  std::string path_;
  bool isFile_;
};

#endif
