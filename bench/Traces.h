#ifndef TARVO_BENCH_TRACES_H
#define TARVO_BENCH_TRACES_H

/// Rows of a trace statement, off and on, and where the lines of such a row go.

#include <fmt/format.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "State.h"
#include "Tarvo/Platform.h"
#include "Tarvo/Trace.h"

namespace bench {

/// A path that writers open for themselves: a file of its own in the temporary directory, that goes
/// with the object, or nowhere.
struct Destination {
  explicit Destination(bool isFile)
      : path(isFile
                 ? std::filesystem::temp_directory_path() / fmt::format("tarvo-bench.{}", getpid())
                 : "/dev/null") {}
  ~Destination() {
    if (path != "/dev/null") unlink(path.c_str());
  }
  const std::string path;
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

/// A channel per object is common: one of the oldest of many of a name goes, and a new one comes.
inline void ChannelAmongAlike(State& state) {
  std::vector<Connection> alike(1000);
  std::size_t oldest = 0;
  for (auto _ : state) {
    alike[oldest] = Connection();
    oldest = (oldest + 1) % alike.size();
  }
}

inline void traceTo(State& state, bool file) {
  const Destination destination(file);
  setenv("TRACEFILE", destination.path.c_str(), 1);
  Tarvo::Platform::setupTarvoDebug("Connection/1");
  {
    const Connection connection;
    for (auto _ : state) connection.tracedSend();
  }
  unsetenv("TRACEFILE");
  Tarvo::Platform::setupTarvoDebug("");
  Tarvo::Platform::clearTarvoDebug("Connection/1");
}
inline void TraceToNull(State& state) { traceTo(state, false); }
inline void TraceToFile(State& state) { traceTo(state, true); }

}  // namespace bench

#endif
