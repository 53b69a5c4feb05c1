/// A trace statement, off and on, beside the least that could do the same and beside two loggers
/// that write as this library does: at once, one flushed line for each statement, from any thread.

#include <fcntl.h>
#include <glog/logging.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include <atomic>
#include <string_view>

#include "Traces.h"

namespace bench {

BENCHMARK(TraceDisabled);
BENCHMARK(TraceToNull);
BENCHMARK(TraceToFile);

/// The least that a switch could be: a word in the object itself.
struct BareSwitch {
  [[gnu::noinline]] void send() const {
    if (((levels.load(std::memory_order_relaxed) >> 1) & 1U) != 0) std::abort();
  }
  std::atomic<std::uint32_t> levels{0};
};
void BareLoadAndTest(State& state) { sendEachTime(state, BareSwitch(), &BareSwitch::send); }
BENCHMARK(BareLoadAndTest);

void oneWriteTo(State& state, bool file) {
  const Destination destination(file);
  const int fd =
      open(destination.path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0666);
  constexpr std::string_view line =
      "2026-01-01 12:00:00.123456 4711 Connection 1 Connection::tracedSend() "
      "client 17 sent 4096 bytes\n";
  for (auto _ : state) {
    if (write(fd, line.data(), line.size()) < 0) state.SkipWithError("cannot write");
  }
  close(fd);
}
BENCHMARK_CAPTURE(oneWriteTo, null, false)->Name("OneWriteToNull");
BENCHMARK_CAPTURE(oneWriteTo, file, true)->Name("OneWriteToFile");

void spdlogTo(State& state, bool file) {
  const Destination destination(file);
  const auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(destination.path, true);
  spdlog::logger logger("Connection", sink);
  logger.set_pattern("%Y-%m-%d %H:%M:%S.%f %t %n %L Connection::%!() %v");
  logger.set_level(spdlog::level::trace);
  logger.flush_on(spdlog::level::trace);
  const Connection sender;
  for (auto _ : state) {
    SPDLOG_LOGGER_INFO(&logger, "client {} sent {} bytes", sender.client, sender.bytes);
  }
}
BENCHMARK_CAPTURE(spdlogTo, null, false)->Name("SpdlogToNull");
BENCHMARK_CAPTURE(spdlogTo, file, true)->Name("SpdlogToFile");

void glogTo(State& state, bool file) {
  const Destination destination(file);
  FLAGS_logbufsecs = 0;
  FLAGS_timestamp_in_logfile_name = false;
  google::SetLogSymlink(google::INFO, "");
  google::SetLogDestination(google::INFO, destination.path.c_str());
  const Connection sender;
  for (auto _ : state) {
    LOG(INFO) << "Connection 1 Connection::glogSend() client " << sender.client << " sent "
              << sender.bytes << " bytes";
  }
  google::SetLogDestination(google::INFO, "");  // nowhere
}
BENCHMARK_CAPTURE(glogTo, null, false)->Name("GlogToNull");
BENCHMARK_CAPTURE(glogTo, file, true)->Name("GlogToFile");

}  // namespace bench

int main(int argc, char** argv) {
  google::InitGoogleLogging(argv[0]);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
