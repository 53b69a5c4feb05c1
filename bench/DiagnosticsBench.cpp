/// A trace statement, off and on, beside the least that could do the same and beside two loggers
/// that write as this library does: at once, one flushed line for each statement, from any thread.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <glog/logging.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <string_view>

#include "Destination.h"
#include "Tarvo/Platform.h"
#include "Tarvo/Trace.h"

namespace {

/// Stands for the traced component: every line names it and its function.
struct Connection : Tarvo::Debuggable {
  Connection() : Debuggable("Connection") {}

  [[gnu::noinline]] void tracedSend() const {
    TARVO_TRACE(*this, 1, "client {} sent {} bytes", client, bytes);
  }
  void spdlogSend() const {
    SPDLOG_LOGGER_INFO(spdlogger, "client {} sent {} bytes", client, bytes);
  }
  void glogSend() const {
    LOG(INFO) << "Connection 1 Connection::glogSend() client " << client << " sent " << bytes
              << " bytes";
  }

  spdlog::logger* spdlogger = nullptr;
  int client = 17;
  std::size_t bytes = 4096;
};

/// The least that a switch could be: a word in the object itself.
struct BareSwitch {
  [[gnu::noinline]] void send() const {
    if (((levels.load(std::memory_order_relaxed) >> 1) & 1U) != 0) std::abort();
  }
  std::atomic<std::uint32_t> levels{0};
};

/// In both rows the switch stands in a function that is called, as in real code: alone in a loop
/// it is a cycle or two, and a row would tell how well the loop lies in memory.
template <typename Object, typename Send>
void sendEachTime(benchmark::State& state, const Object& object, Send send) {
  for (auto _ : state) {
    benchmark::ClobberMemory();
    (object.*send)();
  }
}

void TraceDisabled(benchmark::State& state) {
  sendEachTime(state, Connection(), &Connection::tracedSend);
}
BENCHMARK(TraceDisabled);

void BareLoadAndTest(benchmark::State& state) {
  sendEachTime(state, BareSwitch(), &BareSwitch::send);
}
BENCHMARK(BareLoadAndTest);

void traceTo(benchmark::State& state, const Destination& destination) {
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
void TraceToNull(benchmark::State& state) { traceTo(state, Destination::null()); }
BENCHMARK(TraceToNull);
void TraceToFile(benchmark::State& state) { traceTo(state, Destination::file()); }
BENCHMARK(TraceToFile);

void oneWriteTo(benchmark::State& state, const Destination& destination) {
  const int fd =
      open(destination.path().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0666);
  constexpr std::string_view line =
      "2026-01-01 12:00:00.123456 4711 Connection 1 Connection::tracedSend() "
      "client 17 sent 4096 bytes\n";
  destination.measure(state, [&] {
    if (write(fd, line.data(), line.size()) < 0) state.SkipWithError("cannot write");
  });
  close(fd);
}
void OneWriteToNull(benchmark::State& state) { oneWriteTo(state, Destination::null()); }
BENCHMARK(OneWriteToNull);
void OneWriteToFile(benchmark::State& state) { oneWriteTo(state, Destination::file()); }
BENCHMARK(OneWriteToFile);

void spdlogTo(benchmark::State& state, const Destination& destination) {
  const auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(destination.path(), true);
  spdlog::logger logger("Connection", sink);
  logger.set_pattern("%Y-%m-%d %H:%M:%S.%f %t %n %L Connection::%!() %v");
  logger.set_level(spdlog::level::trace);
  logger.flush_on(spdlog::level::trace);
  Connection connection;
  connection.spdlogger = &logger;
  destination.measure(state, [&] { connection.spdlogSend(); });
}
void SpdlogToNull(benchmark::State& state) { spdlogTo(state, Destination::null()); }
BENCHMARK(SpdlogToNull);
void SpdlogToFile(benchmark::State& state) { spdlogTo(state, Destination::file()); }
BENCHMARK(SpdlogToFile);

void glogTo(benchmark::State& state, const Destination& destination) {
  FLAGS_logbufsecs = 0;
  FLAGS_timestamp_in_logfile_name = false;
  google::SetLogSymlink(google::INFO, "");
  google::SetLogDestination(google::INFO, destination.path().c_str());
  const Connection connection;
  destination.measure(state, [&] { connection.glogSend(); });
  google::SetLogDestination(google::INFO, "");  // nowhere
}
void GlogToNull(benchmark::State& state) { glogTo(state, Destination::null()); }
BENCHMARK(GlogToNull);
void GlogToFile(benchmark::State& state) { glogTo(state, Destination::file()); }
BENCHMARK(GlogToFile);

}  // namespace

int main(int argc, char** argv) {
  google::InitGoogleLogging(argv[0]);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
