#include <fmt/format.h>

#include <cmath>

#include "ReportTable.h"
#include "ReportText.h"

namespace report {

namespace {

/// The heap pays for its height: the reach falls from that of a thousand timers to that of a
/// million by the same factor for each power of ten.
void addStartStop(std::vector<Comparison>& to, double ofThousand, double ofMillion) {
  for (const auto n : timerSizes) {
    const double share = std::log10(static_cast<double>(n) / 1000) / 3;
    const double reach = ofThousand * std::pow(ofMillion / ofThousand, share);
    to.push_back({fmt::format("timer start and stop among {} / libevent's heap",
                              count(static_cast<double>(n))),
                  {{fmt::format("StartStop<TarvoWheel>/{}", n),
                    fmt::format("StartStop<LibeventHeap>/{}", n)}},
                  {std::round(reach * 100) / 100}});
  }
}

}  // namespace

std::vector<Comparison> comparisons() {
  std::vector<Comparison> all{
      {"run of a task by the root / callback of libevent that re-arms itself",
       {{"RootTaskRun", "LibeventCallback"}},
       {1.4, 1.25}},
      {"run of a group's member / post of asio with a descriptor in use",
       {{"GroupMemberRun/1", "AsioPost/withReactor/1"}},
       {0.85, 0.6}},
  };
  addStartStop(all, 1.0, 0.33);
  const std::vector<Comparison> others{
      {"timer re-arm among 1M / libevent's heap",
       {{"(Rearm<TarvoWheel, false>)/1000000", "(Rearm<LibeventHeap, false>)/1000000"}},
       {0.2}},
      {"timer re-arm among 1M / libev",
       {{"(Rearm<TarvoWheel, false>)/1000000", "(Rearm<Libev, false>)/1000000"}},
       {1.0}},
      {"expiry of 1M due timers / libevent's heap",
       {{"Expire<TarvoWheel>/1000000", "Expire<LibeventHeap>/1000000"}},
       {0.25}},
      {"event of a descriptor task / persistent event of libevent, worst of four rings",
       {{"TarvoFdTask/100/1", "LibeventPersist/100/1"},
        {"TarvoFdTask/100/50", "LibeventPersist/100/50"},
        {"TarvoFdTask/1000/1", "LibeventPersist/1000/1"},
        {"TarvoFdTask/1000/100", "LibeventPersist/1000/100"}},
       {1.6}},
      {"disabled trace statement / load and test", {{"TraceDisabled", "BareLoadAndTest"}}, {1.2}},
      {"trace line to a file / spdlog that flushes each line",
       {{"TraceToFile", "SpdlogToFile"}},
       {1.0}},
      {"trace line to a file / one write of a prepared line",
       {{"TraceToFile", "OneWriteToFile"}},
       {1.5}},
      {"backtrace of 50 frames / unw_backtrace",
       {{"BacktraceCapture/50", "UnwBacktrace/50"}},
       {1.3}},
      {"throw and catch over 10 frames / std::runtime_error",
       {{"ThrowAndCatch<Tarvo::RuntimeException>/10", "ThrowAndCatch<std::runtime_error>/10"}},
       {1.4}},
      {"lock and unlock / std::mutex",
       {{"LockAndUnlock<Tarvo::Locking::Lock>", "LockAndUnlock<std::mutex>"}},
       {1.3}},
      {"lock and unlock, recursive / recursive mutex of pthread",
       {{"LockAndUnlock<Tarvo::Locking::RecursiveLock>", "LockAndUnlock<RecursivePthreadMutex>"}},
       {1.3}},
  };
  all.insert(all.end(), others.begin(), others.end());
  return all;
}

}  // namespace report
