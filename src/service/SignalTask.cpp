#include "Tarvo/SignalTask.h"

#include <fmt/format.h>

#include <algorithm>
#include <list>
#include <string_view>

#include "Tarvo/Exception.h"
#include "Tarvo/TaskScheduler.h"
#include "service/SignalWatch.h"
#include "service/TaskWake.h"

namespace Tarvo {

namespace {

/// Empty when the signal can be watched.
std::string_view whyNot(int signal) {
  switch (signal) {
    case SIGKILL:
    case SIGSTOP:
      return "no process can handle it";
    case SIGSEGV:
    case SIGBUS:
    case SIGFPE:
    case SIGILL:
    case SIGTRAP:
    case SIGSYS:
      return "it tells a thread of its own fault, which cannot wait for a task";
    default:
      // Between the two kinds are those that the C library needs itself.
      return signal >= 1 && signal <= SIGRTMAX && (signal <= SIGSYS || signal >= SIGRTMIN)
                 ? ""
                 : "there is no such signal";
  }
}

std::vector<int> watchable(const String& name, std::vector<int> signals) {
  if (signals.empty()) RuntimeException::throwException(name + ": no signal to watch");
  for (const int signal : signals) {
    if (const auto reason = whyNot(signal); !reason.empty()) {
      RuntimeException::throwException(
          fmt::format("{}: cannot watch signal {}: {}", name, signal, reason));
    }
  }
  std::ranges::sort(signals);
  signals.erase(std::ranges::unique(signals).begin(), signals.end());
  return signals;
}

}  // namespace

struct SignalTask::Open final : Impl::LoopKeeping {
  Open(SignalTask& task, const std::vector<int>& signals)
      : wake(std::make_shared<Impl::TaskWake>(task)) {
    for (const int signal : signals) watches.emplace_back(signal, *wake);
  }
  ~Open() override { wake->forgetTask(); }
  void loopEnds() noexcept override { watches.clear(); }
  bool inForkedChildToo() const noexcept override { return false; }

  const std::shared_ptr<Impl::TaskWake> wake;
  std::list<Impl::SignalWatch> watches;  // the one that was served last is the last
};

SignalTask::SignalTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                       const String& name, std::vector<int> signals)
    : Task(std::move(scheduler), priority, name),
      open_(std::make_unique<Open>(*this, watchable(name, std::move(signals)))) {}

SignalTask::~SignalTask() {
  close();
  handleDestroy();
}

void SignalTask::close() {
  taskScheduler()->sanityCheckCurrentRunningThread();
  open_.reset();
}

void SignalTask::taskExecute() {
  if (open_ == nullptr) return;
  auto& watches = open_->watches;
  const auto any = [](const Impl::SignalWatch& watch) { return watch.any(); };
  const auto next = std::ranges::find_if(watches, any);
  if (next == watches.end()) return;
  watches.splice(watches.end(), watches, next);
  const int signal = next->signal();
  const unsigned count = next->take();
  if (std::ranges::any_of(watches, any)) scheduleTask();
  taskWorkCountInc(count);
  taskExecuteSignal(signal, count);
}

}  // namespace Tarvo
