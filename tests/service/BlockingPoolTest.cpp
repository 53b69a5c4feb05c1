#include "Tarvo/BlockingPool.h"

#include "Tarvo/Thread.h"
#include "support/SchedulerFixture.h"

namespace {
std::latch* reachedByJoin = nullptr;
}  // namespace

/// Stands before the C library's for the library too.
extern "C" [[gnu::visibility("default")]] int pthread_join(pthread_t thread, void** result) {
  if (auto* latch = std::exchange(reachedByJoin, nullptr)) latch->count_down();
  static const auto real =
      reinterpret_cast<int (*)(pthread_t, void**)>(dlsym(RTLD_NEXT, "pthread_join"));
  return real(thread, result);
}

namespace {

using namespace testsupport;
using Tarvo::BlockingPool;

struct BlockingPoolTest : SchedulerFixture {
  /// Logs what comes back of a work.
  template <typename Work>
  auto run(BlockingPool& pool, Work work) {
    const auto own = gettid();
    return pool.run(std::move(work), root, TaskPriority::normal, "work", [=, this](auto result) {
      EXPECT_EQ(gettid(), own);
      const auto error = errorOf([&] { log.push_back(result.get()); });
      if (error != "nothing failed") log.push_back(error);
    });
  }
};

TEST_F(BlockingPoolTest, WorksOnItsThreadsAndTellsTheCallersTask) {
  BlockingPool pool(2, "workers");
  std::latch both(2);
  const auto first = run(pool, [&both, name = std::make_unique<std::string>("workers")] {
    both.arrive_and_wait();
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    return Tarvo::threadName() == *name && sigismember(&blocked, SIGTERM) ? "named" : "not";
  });
  const auto second = run(pool, [&]() -> std::string {
    both.arrive_and_wait();
    Tarvo::RuntimeException::throwException("thrown over there");
  });
  first->scheduleTask();  // by somebody else: too early
  runLoop();
  EXPECT_THAT(log, testing::UnorderedElementsAre("named", HasSubstr("thrown over there")));
  EXPECT_GT(pool.figures().longestWait.count(), 0);
}

TEST_F(BlockingPoolTest, WithdrawsForgetsAndRefusesButWaitsForWhatRuns) {
  auto pool = std::make_unique<BlockingPool>(1, "one");
  std::latch begun(1), go(1);
  bool ran = false;
  const auto held = std::make_shared<int>();
  auto running = run(*pool, [&, held] {
    begun.count_down();
    go.wait();
    ran = true;
    return "forgotten";
  });
  begun.wait();
  auto withdrawn = run(*pool, [held] { return "withdrawn"; });
  const auto refused = run(*pool, [held] { return "refused"; });
  EXPECT_THAT(pool->figures().toString(), StartsWith("one: 1 of 1 threads busy, 2 queued"));
  const auto child = runForked([&] {
    Tarvo::leForkReinit();
    runLoop();  // does not wait for the parent's
    std::cout << errorOf([&] { withdrawn = run(*pool, [] { return ""; }); });
    return pool.reset(), 0;
  });
  EXPECT_THAT(child.out, HasSubstr("one: its threads are the parent"));
  withdrawn.reset();
  running.reset();
  EXPECT_EQ(held.use_count(), 3);  // the withdrawn one has let go
  reachedByJoin = &go;
  pool.reset();
  EXPECT_TRUE(ran);
  EXPECT_EQ(held.use_count(), 1);
  runLoop();
  EXPECT_THAT(log, ElementsAre(HasSubstr("one: the pool ended before the work began")));
}

}  // namespace
