#ifndef TARVO_BENCH_TRACES_H
#define TARVO_BENCH_TRACES_H

/// Rows of a trace statement, off and on, and where the lines of such a row go.

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "State.h"
#include "Tarvo/Platform.h"
#include "Tarvo/Trace.h"

namespace bench {

/// A path that writers open for themselves.
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
  void measure(State& state, WriteLine writeLine) const {
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

/// Stands for the traced component: every line names it and its function.
struct Connection : Tarvo::Debuggable {
  Connection() : Debuggable("Connection") {}
  [[gnu::noinline]] void tracedSend() const {
    TARVO_TRACE(*this, 1, "client {} sent {} bytes", client, bytes);
  }
  int client = 17;
  std::size_t bytes = 4096;
};

/// The switch stands in a function that is called, as in real code: alone in a loop it is a cycle
/// or two, and a row would tell how well the loop lies in memory.
template <typename Object, typename Send>
void sendEachTime(State& state, const Object& object, Send send) {
  for (auto _ : state) {
    opaque(object);
    (object.*send)();
  }
}

inline void TraceDisabled(State& state) {
  sendEachTime(state, Connection(), &Connection::tracedSend);
}

inline void traceTo(State& state, const Destination& destination) {
  setenv("TRACEFILE", destination.path().c_str(), 1);
  Tarvo::Platform::setupTarvoDebug("Connection/1");
  {
    const Connection connection;
    destination.measure(state, [&] { connection.tracedSend(); });
  }
  unsetenv("TRACEFILE");
  Tarvo::Platform::setupTarvoDebug("");
  Tarvo::Platform::clearTarvoDebug("Connection/1");
}
inline void TraceToNull(State& state) { traceTo(state, Destination::null()); }
inline void TraceToFile(State& state) { traceTo(state, Destination::file()); }

}  // namespace bench

#endif
