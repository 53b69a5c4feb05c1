#include "Tarvo/ChildProcess.h"

#include <fmt/format.h>
#include <unistd.h>

extern "C" {  // which the header itself lacks in some versions of the C library
#include <sys/pidfd.h>
}

#include <cerrno>
#include <utility>

#include "Tarvo/Assert.h"
#include "Tarvo/TaskScheduler.h"
#include "service/Spawn.h"
#include "service/WaitFor.h"
#include "util/Failed.h"

namespace Tarvo {

struct ChildProcess::Child {
  pid_t parent = getpid();
  pid_t pid = 0;          // 0 again when it has ended
  Impl::OwnedFd process;  // none when somebody else was told of its end before it was opened
  std::array<Impl::OwnedFd, 3> ends;
};

namespace {

Impl::OwnedFd openProcess(pid_t pid) {
  Impl::OwnedFd process(pidfd_open(pid, 0));
  if (!process && errno != ESRCH) {
    Impl::throwOnError("watch process", fmt::to_string(pid), Impl::errorCode(errno));
  }
  return process;
}

}  // namespace

String ChildEnd::toString() const {
  if (!known()) return "ended, how is not known";
  if (signal == 0) return fmt::format("exited with {}", exitCode);
  return fmt::format("killed by signal {}{}", signal, coreDumped ? ", with a core file" : "");
}

ChildProcess::ChildProcess(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                           String name)
    : Task(std::move(scheduler), priority, std::move(name)),
      control_(Platform::getFdControl(this)) {}

ChildProcess::~ChildProcess() {
  handleDestroy();
  control_.reset();
  if (running() && child_->process && !Impl::endOf(child_->process))
    Impl::waitAside(std::move(child_->process));
}

void ChildProcess::start(const ChildCommand& command) {
  taskScheduler()->sanityCheckCurrentRunningThread();
  TARVO_ASSERT(!running(), "{}: child {} has not ended", *this, pid());
  auto child = std::make_unique<Child>();
  ChildStreams streams(command);
  // Takes the place of the child's descriptor, so that a want of them shows before there is a
  // child.
  Impl::OwnedFd place = openProcess(child->parent);
  child->pid = Impl::spawn(command, streams);
  place.close();
  try {
    watch(*child);
  } catch (...) {
    Impl::endChild(child->pid);
    throw;
  }
  child->ends = std::move(streams.parentEnds());
  child_ = std::move(child);
  if (!child_->process) scheduleTask();
}

// Whoever waits for any child may have taken the end already; then the number may be another's.
void ChildProcess::watch(Child& child) {
  Impl::OwnedFd process = openProcess(child.pid);
  if (!process || !Impl::isChild(process)) return;
  control_->setFd(process.get());
  control_->setReads(true);
  child.process = std::move(process);
}

void ChildProcess::readFdEvent(int) {
  const auto self = weak_from_this().lock();  // handleTaskBusy() may drop the last reference
  scheduleTask();                             // first: where it is refused, the loop reports again
  control_->setReads(false);
}

void ChildProcess::writeFdEvent(int) {}

void ChildProcess::taskExecute() {
  if (!running()) return;  // scheduled by somebody else, or resumed
  ChildEnd end;
  if (child_->process) {
    const auto found = Impl::endOf(child_->process);
    if (!found) return control_->setReads(true);
    end = *found;
  }
  control_->delFd();
  child_->process = {};
  child_->pid = 0;
  taskExecuteEnd(end);
}

bool ChildProcess::running() const { return pid() != 0; }

pid_t ChildProcess::pid() const {
  return child_ != nullptr && child_->parent == getpid() ? child_->pid : 0;
}

bool ChildProcess::kill(int signal) {
  taskScheduler()->sanityCheckCurrentRunningThread();
  if (!running() || !child_->process) return false;
  if (pidfd_send_signal(child_->process.get(), signal, nullptr, 0) == 0) return true;
  const int error = errno;
  if (error != ESRCH) {
    Impl::throwOnError(fmt::format("send signal {} to child", signal), fmt::to_string(pid()),
                       Impl::errorCode(error));
  }
  return false;
}

int ChildProcess::takeIn() { return takeEnd(STDIN_FILENO); }
int ChildProcess::takeOut() { return takeEnd(STDOUT_FILENO); }
int ChildProcess::takeErr() { return takeEnd(STDERR_FILENO); }

int ChildProcess::takeEnd(unsigned number) {
  taskScheduler()->sanityCheckCurrentRunningThread();
  return child_ == nullptr ? -1 : child_->ends[number].release();
}

}  // namespace Tarvo
