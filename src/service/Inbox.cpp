#include "Tarvo/Inbox.h"

#include "Tarvo/Exception.h"
#include "Tarvo/Fmt.h"
#include "Tarvo/TaskScheduler.h"

namespace Tarvo {

namespace Impl {

InboxTask::InboxTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                     const String& name, MakeQueue* makeQueue, std::size_t capacity)
    : Task(std::move(scheduler), priority, name), queue_(makeQueue(*this, capacity)) {}

InboxTask::~InboxTask() {
  taskScheduler()->sanityCheckCurrentRunningThread();
  queue_->close();
  queue_->letLoopGo();
  handleDestroy();
}

void InboxTask::taskExecuteEnd() {}

void InboxTask::taskExecute() {
  unsigned long long served = 0;
  try {
    const bool all = serveItems(served);
    rests(served, all ? 0 : queue_->rests());
  } catch (...) {
    rests(served, queue_->rests());
    if (queue_->allServed()) scheduleTask();
    throw;
  }
  if (endServed_ || !queue_->allServed()) return;
  endServed_ = true;
  queue_->letLoopGo();
  taskExecuteEnd();
}

/// False when it stops with items left, perhaps.
bool InboxTask::serveItems(unsigned long long& served) {
  // Reading the clock takes as long as many an item; so for quick ones it is read less often.
  constexpr int together = 4;
  constexpr auto quick = together * std::chrono::microseconds(1);
  int untilLook = 1;
  auto lastLook = TaskClock::now();
  while (queue_->any()) {
    ++served;
    serveNext();
    if (taskSuspended()) return false;
    if (--untilLook > 0 && taskTestYieldRatioEffective() == 0) continue;
    const auto now = TaskClock::now();
    if (taskShouldYieldAt(now)) return false;
    untilLook = now - lastLook < quick ? together : 1;
    lastLook = now;
  }
  return true;
}

void InboxTask::rests(unsigned long long served, std::size_t waiting) {
  taskWorkCountInc(served);
  taskWorkPendingIs(static_cast<unsigned int>(waiting));
  if (waiting > 0) scheduleTask();
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
