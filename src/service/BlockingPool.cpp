#include "Tarvo/BlockingPool.h"

#include <fmt/format.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <optional>
#include <thread>
#include <vector>

#include "Tarvo/Assert.h"
#include "Tarvo/TaskScheduler.h"
#include "Tarvo/Thread.h"
#include "service/TaskWake.h"
#include "util/Failed.h"

namespace Tarvo {

namespace {

using Clock = std::chrono::steady_clock;

/// What a pool and its works count; the works may be dropped later than the pool.
struct Counts {
  std::atomic<std::size_t> running{0};
  std::atomic<std::size_t> queued{0};
  std::atomic<Clock::rep> longestWait{0};

  void waited(Clock::rep wait) {
    Clock::rep longest = longestWait.load(std::memory_order_relaxed);
    while (wait > longest && !longestWait.compare_exchange_weak(longest, wait)) continue;
  }
};

/// While one lives, threads are made that take no signals.
class NoSignals {
 public:
  NoSignals() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  NoSignals(const NoSignals&) = delete;
  NoSignals& operator=(const NoSignals&) = delete;
  ~NoSignals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_;
};

std::exception_ptr poolEnded(const String& name) {
  try {
    RuntimeException::throwException(name + ": the pool ended before the work began");
  } catch (...) {
    return std::current_exception();
  }
}

}  // namespace

/// One work. Whoever claims it, a thread of the pool or the handle that is dropped, has its call.
struct BlockingPool::Job {
  Job(BlockingWork& work, Call itsCall, std::shared_ptr<Counts> itsCounts)
      : wake(std::make_shared<Impl::TaskWake>(work)),
        counts(std::move(itsCounts)),
        call(std::move(itsCall)) {
    counts->queued.fetch_add(1, std::memory_order_relaxed);
  }
  bool claim() noexcept {
    if (claimed_.exchange(true, std::memory_order_acq_rel)) return false;
    counts->queued.fetch_sub(1, std::memory_order_relaxed);
    return true;
  }

  const std::shared_ptr<Impl::TaskWake> wake;
  const std::shared_ptr<Counts> counts;
  const Clock::time_point queuedAt = Clock::now();
  Call call;
  std::atomic<bool> finished{false};

 private:
  std::atomic<bool> claimed_{false};
};

class BlockingPool::Threads {
 public:
  Threads(unsigned number, const String& name) : name_(name), context_(static_cast<int>(number)) {
    threads_.reserve(number);
    const NoSignals taken;
    try {
      while (threads_.size() < number) {
        threads_.emplace_back([this] {
          threadNameIs(name_.c_str());
          context_.run();
        });
      }
    } catch (const std::system_error& error) {
      join();
      Impl::throwOnError("start a thread of", name, error.code());
    }
  }

  void end() {
    whyNot_ = poolEnded(name_);
    ends_.store(true, std::memory_order_release);
    join();
  }

  void post(std::shared_ptr<Job> job) {
    boost::asio::post(context_, [this, posted = std::move(job)] { serve(*posted); });
  }
  bool ofThisProcess() const { return process_ == getpid(); }
  const String& name() const { return name_; }
  std::size_t number() const { return threads_.size(); }
  const std::shared_ptr<Counts>& counts() const { return counts_; }

 private:
  void join() {
    untilEnd_.reset();
    for (auto& thread : threads_) thread.join();
  }

  void serve(Job& job) {
    if (!job.claim()) return;
    const bool refused = ends_.load(std::memory_order_acquire);
    if (!refused) counts_->waited((Clock::now() - job.queuedAt).count());
    counts_->running.fetch_add(1, std::memory_order_relaxed);
    job.call(refused ? whyNot_ : nullptr);
    job.call = nullptr;
    counts_->running.fetch_sub(1, std::memory_order_relaxed);
    job.finished.store(true, std::memory_order_release);
    job.wake->wake();
  }

  const String name_;
  const pid_t process_ = getpid();
  const std::shared_ptr<Counts> counts_ = std::make_shared<Counts>();
  std::exception_ptr whyNot_;  // before ends_ is set
  std::atomic<bool> ends_{false};
  boost::asio::io_context context_;
  std::optional<boost::asio::executor_work_guard<boost::asio::io_context::executor_type>> untilEnd_{
      context_.get_executor()};
  std::vector<std::thread> threads_;
};

/// Until the work is done, or the handle or its loop goes.
struct BlockingWork::Pending final : Impl::LoopKeeping {
  explicit Pending(std::shared_ptr<BlockingPool::Job> itsJob) : job(std::move(itsJob)) {}
  ~Pending() override {
    job->wake->forgetTask();
    withdraw();
  }
  void loopEnds() noexcept override { withdraw(); }
  bool inForkedChildToo() const noexcept override { return false; }
  void withdraw() noexcept {
    if (job->claim()) job->call = nullptr;
  }

  const std::shared_ptr<BlockingPool::Job> job;
};

BlockingWork::BlockingWork(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                           const String& name)
    : Task(std::move(scheduler), priority, name) {}

BlockingWork::~BlockingWork() {
  taskScheduler()->sanityCheckCurrentRunningThread();
  pending_.reset();
  handleDestroy();
}

void BlockingWork::taskExecute() {
  if (pending_ == nullptr || !pending_->job->finished.load(std::memory_order_acquire)) return;
  pending_.reset();
  taskExecuteDone();
}

String BlockingPoolFigures::toString() const {
  return fmt::format("{}: {} of {} threads busy, {} queued, longest wait {:.6f} s", name, running,
                     threads, queued, std::chrono::duration<double>(longestWait).count());
}

BlockingPool::BlockingPool(unsigned threads, const String& name) {
  TARVO_ASSERT(threads > 0, "{}: a pool without threads", name);
  TARVO_ASSERT(name.size() <= 15, "{}: the name of a thread has at most 15 characters", name);
  threads_ = std::make_unique<Threads>(threads, name);
}

BlockingPool::~BlockingPool() {
  if (threads_->ofThisProcess()) {
    threads_->end();
  } else {
    static_cast<void>(threads_.release());  // whose threads and locks are the parent's
  }
}

void BlockingPool::start(BlockingWork& work, Call call) {
  if (!threads_->ofThisProcess()) {
    RuntimeException::throwException(threads_->name() + ": its threads are the parent process's");
  }
  auto job = std::make_shared<Job>(work, std::move(call), threads_->counts());
  work.pending_ = std::make_unique<BlockingWork::Pending>(job);
  threads_->post(std::move(job));
}

BlockingPoolFigures BlockingPool::figures() const {
  const Counts& counts = *threads_->counts();
  return {.name = threads_->name(),
          .threads = static_cast<unsigned>(threads_->number()),
          .running = counts.running.load(std::memory_order_relaxed),
          .queued = counts.queued.load(std::memory_order_relaxed),
          .longestWait = Clock::duration(counts.longestWait.load(std::memory_order_relaxed))};
}

}  // namespace Tarvo
