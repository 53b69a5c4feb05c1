#include "Tarvo/Inbox.h"

#include "Tarvo/Exception.h"
#include "Tarvo/Fmt.h"
#include "Tarvo/TaskScheduler.h"

namespace Tarvo {

namespace Impl {

InboxTask::InboxTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                     const String& name, const InboxItemKind& kind, std::size_t capacity)
    : Task(std::move(scheduler), priority, name),
      queue_(std::make_shared<InboxQueue>(*this, kind, capacity)),
      kind_(kind) {}

InboxTask::~InboxTask() {
  taskScheduler()->sanityCheckCurrentRunningThread();
  queue_->close();
  queue_->letLoopGo();
  handleDestroy();
}

void InboxTask::taskExecuteEnd() {}

void InboxTask::taskExecute() {
  unsigned long long served = 0;
  queue_->serves();
  try {
    serveItems(served);
  } catch (...) {
    runEnds(served);
    throw;
  }
  runEnds(served);
  if (endServed_ || !queue_->ended() || queue_->waiting() > 0) return;
  endServed_ = true;
  queue_->letLoopGo();
  taskExecuteEnd();
}

void InboxTask::serveItems(unsigned long long& served) {
  struct Item {
    ~Item() {
      task.kind_.destroy(item);
      task.queue_->served(item);
    }
    InboxTask& task;
    void* item;
  };
  // Reading the clock takes as long as many an item; so for quick ones it is read less often.
  constexpr int together = 4;
  constexpr auto quick = together * std::chrono::microseconds(1);
  int untilLook = 1;
  auto lastLook = TaskClock::now();
  do {
    while (void* next = queue_->next()) {
      ++served;
      {
        const Item item{*this, next};
        serve(next);
      }
      if (taskSuspended()) return;
      if (--untilLook > 0 && taskTestYieldRatioEffective() == 0) continue;
      const auto now = TaskClock::now();
      if (taskShouldYieldAt(now)) return;
      untilLook = now - lastLook < quick ? together : 1;
      lastLook = now;
    }
  } while (!queue_->rests());
}

void InboxTask::runEnds(unsigned long long served) {
  queue_->restsAnyway();
  const std::size_t left = queue_->waiting();
  taskWorkCountInc(served);
  taskWorkPendingIs(static_cast<unsigned int>(left));
  if (left > 0) scheduleTask();
}

}  // namespace Impl

void CallPoster::refuseOwnThread() const {
  if (queue() == nullptr) throwEnded();
  if (queue()->onOwnThread()) {
    RuntimeException::throwException(
        fmt::format("{}: called on its own thread, which cannot wait for itself", queue()->name()));
  }
}

void CallPoster::throwEnded() const {
  RuntimeException::throwException(fmt::format("{}: ended before the call was served",
                                               queue() == nullptr ? "no inbox" : queue()->name()));
}

void CallInbox::taskExecuteItem(std::function<void()>& work) { work(); }

}  // namespace Tarvo
