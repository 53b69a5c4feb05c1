/// Work that threads post to another thread's loop, which runs it: in bulk, and to and fro.

#include <benchmark/benchmark.h>
#include <uv.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "Tarvo/Inbox.h"
#include "Tarvo/TaskScheduler.h"

namespace {

using Work = std::function<void()>;

// Each of the three is made on the thread that runs it.

class TarvoInbox {
 public:
  void post(Work work) { poster_.post(std::move(work)); }
  void run() { Tarvo::Platform::doEventLoop(); }
  void stop() { Tarvo::Platform::stopEventLoop(); }

 private:
  std::shared_ptr<Tarvo::CallInbox> inbox_ = std::make_shared<Tarvo::CallInbox>(
      Tarvo::schedulerRootTarvo(), Tarvo::TaskPriority::normal, "inbox");
  Tarvo::CallPoster poster_ = inbox_->poster();
};

class Asio {
 public:
  template <typename Posted>
  void post(Posted work) {
    asio::post(context_, std::move(work));
  }
  void run() {
    context_.restart();
    context_.run();
  }
  void stop() { context_.stop(); }

 private:
  asio::io_context context_{1};
  asio::executor_work_guard<asio::io_context::executor_type> open_{context_.get_executor()};
};

/// Its signal, beside a queue with a lock.
class Libuv {
 public:
  Libuv() {
    uv_loop_init(&loop_);
    uv_async_init(&loop_, &async_,
                  [](uv_async_t* async) { static_cast<Libuv*>(async->data)->serve(); });
    async_.data = this;
  }
  Libuv(const Libuv&) = delete;
  Libuv& operator=(const Libuv&) = delete;
  ~Libuv() {
    uv_close(reinterpret_cast<uv_handle_t*>(&async_), nullptr);
    uv_run(&loop_, UV_RUN_DEFAULT);
    uv_loop_close(&loop_);
  }
  void post(Work work) {
    {
      const std::lock_guard guard(lock_);
      posted_.push_back(std::move(work));
    }
    uv_async_send(&async_);
  }
  void run() { uv_run(&loop_, UV_RUN_DEFAULT); }
  void stop() { uv_stop(&loop_); }

 private:
  void serve() {
    {
      const std::lock_guard guard(lock_);
      taken_.swap(posted_);
    }
    for (Work& work : taken_) work();
    taken_.clear();
  }
  uv_loop_t loop_;
  uv_async_t async_;
  std::mutex lock_;
  std::vector<Work> posted_, taken_;
};

/// Posts of so many threads, until the loop has run all of them.
template <typename Loop>
void PostFrom(benchmark::State& state) {
  constexpr long each = 100'000;
  const long all = each * state.range(0);
  Loop loop;
  for (auto _ : state) {
    long left = all;
    std::vector<std::thread> posters;
    for (long i = 0; i < state.range(0); ++i) {
      posters.emplace_back([&] {
        for (long n = 0; n < each; ++n) {
          loop.post([&] {
            if (--left == 0) loop.stop();
          });
        }
      });
    }
    loop.run();
    for (auto& poster : posters) poster.join();
  }
  state.SetItemsProcessed(state.iterations() * all);
}
BENCHMARK_TEMPLATE(PostFrom, TarvoInbox)->Arg(1)->Arg(4)->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK_TEMPLATE(PostFrom, Libuv)->Arg(1)->Arg(4)->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK_TEMPLATE(PostFrom, Asio)->Arg(1)->Arg(4)->MeasureProcessCPUTime()->UseRealTime();

/// Two threads that post to each other, one thing at a time.
template <typename Loop>
void RoundTrip(benchmark::State& state) {
  constexpr int trips = 10'000;
  Loop here;
  Loop* there = nullptr;
  std::atomic<bool> ready{false};
  std::thread other([&] {
    Loop itself;
    there = &itself;
    ready = true;
    ready.notify_one();
    itself.run();
  });
  ready.wait(false);
  for (auto _ : state) {
    int left = trips;
    const Work serve = [&] {
      there->post([&] {
        here.post([&] {
          if (--left == 0) return here.stop();
          serve();
        });
      });
    };
    serve();
    here.run();
  }
  there->post([&] { there->stop(); });
  other.join();
  state.SetItemsProcessed(state.iterations() * trips);
}
BENCHMARK_TEMPLATE(RoundTrip, TarvoInbox)->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK_TEMPLATE(RoundTrip, Libuv)->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK_TEMPLATE(RoundTrip, Asio)->MeasureProcessCPUTime()->UseRealTime();

}  // namespace
