/// Puts KvService under load and checks every answer.
///
///     KvClient port connections seconds < list
///
/// The list names files, whose contents become values, one path a line. The load is a mix of
/// requests, for so many seconds without the service's background work and for so many with it,
/// while some odd clients behave badly beside it. The service must be fresh and have no other
/// clients. Exits non-zero when an answer was wrong or missing.

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <system_error>
#include <vector>

#include "OddClient.h"
#include "Tarvo/Util.h"
#include "Worker.h"

namespace kv {

namespace {

constexpr double patience = 60;  // seconds for what must come to an end
constexpr std::size_t fileLimit = 500'000;
constexpr std::size_t sumLimit = 8'000'000;

/// Leaves out what cannot be read or is too large for the service, and what is beyond some
/// megabytes altogether.
std::vector<File> readFiles(std::istream& list) {
  std::vector<File> files;
  std::size_t sum = 0;
  for (std::string path; std::getline(list, path);) {
    std::error_code error;
    std::string bytes = Tarvo::Util::fileRead(path, fileLimit, error);
    if (error || sum + bytes.size() > sumLimit) continue;
    sum += bytes.size();
    files.push_back({path, std::move(bytes)});
  }
  if (files.empty()) Tarvo::RuntimeException::throwException("the list names no file");
  return files;
}

/// Workers that go through the same phases together.
class LoadTest {
 public:
  LoadTest(int port, unsigned int workers, const std::vector<File>& files) {
    for (auto& script : {halfRequest(), nonsense(), lateReader()}) {
      oddClients_.push_back(std::make_shared<OddClient>(scheduler_, port, script));
    }
    for (unsigned int number = 0; number < workers; ++number) {
      workers_.push_back(std::make_shared<Worker>(scheduler_, port, number, files, score_));
    }
  }

  /// False when anything was wrong.
  bool run(double seconds) {
    finish(Worker::Phase::load);
    fmt::print("{:<16} {:>10} {:>8} {:>8} {:>8} {:>8} {:>8}\n", "background work", "requests/s",
               "p50 ms", "p90 ms", "p99 ms", "p99.9 ms", "max ms");
    for (const char* state : {"off", "on"}) {
      backgroundIs(state);
      measure(state, seconds);
    }
    finish(Worker::Phase::verify);
    for (const auto& client : oddClients_) waitFor([&] { return client->dropped(); });
    checkCount();
    finish(Worker::Phase::rest);

    for (const auto& client : oddClients_) {
      fmt::print("{}\n", client->text());
      score_.wrong += client->isRight() ? 0 : 1;
    }
    fmt::print("{} answers checked byte for byte, {} wrong; {} keys stored, {:.1f} MB\n",
               score_.answers, score_.wrong, keys_, static_cast<double>(bytes_) / 1e6);
    return score_.wrong == 0;
  }

 private:
  template <typename Condition>
  void waitFor(const Condition& condition) {
    const Tarvo::Time end = Tarvo::time() + patience;
    while (!condition()) {
      if (Tarvo::time() > end) Tarvo::RuntimeException::throwException("no end of it");
      Tarvo::Platform::doEventLoop(0.005);
    }
  }

  void begin(Worker::Phase phase) {
    for (const auto& worker : workers_) worker->phaseIs(phase);
  }

  void finish(Worker::Phase phase) {
    begin(phase);
    waitFor([&] {
      return std::ranges::all_of(workers_, [](const auto& worker) { return worker->finished(); });
    });
  }

  void measure(const char* title, double seconds) {
    begin(Worker::Phase::mix);
    score_.latencies.clear();
    const Tarvo::Time start = Tarvo::time();
    Tarvo::Platform::doEventLoop(seconds);
    auto& latencies = score_.latencies;
    const auto count = static_cast<double>(latencies.size());
    fmt::print("{:<16} {:>10.0f}", title, count / (Tarvo::time() - start));
    std::ranges::sort(latencies);
    for (const double part : {0.5, 0.9, 0.99, 0.999, 1.0}) {
      const auto rank = std::min(static_cast<std::size_t>(part * count), latencies.size() - 1);
      fmt::print(" {:>8.2f}", latencies.empty() ? 0 : static_cast<double>(latencies[rank]) * 1e3);
    }
    fmt::print("\n");
  }

  void backgroundIs(const char* state) {
    workers_.front()->ask({"CONFIG", "SET", "background", state},
                          [](const Answer& answer, auto) { return answer.is('+', "OK"); });
    finish(Worker::Phase::read);
  }

  /// Whether the service has what all workers together have stored.
  void checkCount() {
    for (const auto& worker : workers_) {
      worker->forEachValue([this](const std::string& value) {
        ++keys_;
        bytes_ += value.size();
      });
    }
    workers_.front()->ask({"DBSIZE"}, [this](const Answer& answer, auto) {
      return answer.is(':', std::to_string(keys_));
    });
    workers_.front()->ask({"INFO"}, [this](const Answer& answer, auto) {
      return answer.text.find(fmt::format("\r\nvalue_bytes:{}\r\n", bytes_)) != std::string::npos;
    });
  }

  std::shared_ptr<Tarvo::TaskScheduler> scheduler_ = Tarvo::schedulerRootTarvo();
  Score score_;
  std::vector<std::shared_ptr<Worker>> workers_;
  std::vector<std::shared_ptr<OddClient>> oddClients_;
  std::size_t keys_ = 0;
  std::size_t bytes_ = 0;
};

}  // namespace

}  // namespace kv

int main(int argc, char** argv) {
  const double seconds = argc == 4 ? std::strtod(argv[3], nullptr) : 0;
  const unsigned long connections = argc == 4 ? std::strtoul(argv[2], nullptr, 10) : 0;
  if (!(seconds > 0) || connections == 0) {
    std::fprintf(stderr, "usage: KvClient port connections seconds < list-of-files\n");
    return 2;
  }
  try {
    const std::vector<kv::File> files = kv::readFiles(std::cin);
    kv::LoadTest test(std::atoi(argv[1]), static_cast<unsigned>(connections), files);
    return test.run(seconds) ? 0 : 1;
  } catch (const Tarvo::Exception& e) {
    std::fprintf(stderr, "KvClient: %s\n", e.msg().c_str());
    return 1;
  }
}
