#include "Tarvo/Locking.h"

#include "support/Test.h"

namespace {

using namespace testsupport;
using Tarvo::Locking::Lock;
using Tarvo::Locking::RecursiveLock;

/// The report names the lock's owner and whoever it was that tried.
void expectRefusal(auto& lock, pthread_t owner) {
  EXPECT_THAT(failureOf([&] { lock.unlock(); }),
              HasSubstr(fmt::format("not currently held, owner:{} me:{}", owner, pthread_self())));
}

TEST(LockingTest, OnlyTheOwnerMayReleaseAsOftenAsItLocked) {
  Lock lock;
  RecursiveLock recursive;
  lock.lock();
  recursive.lock();
  EXPECT_TRUE(recursive.try_lock());
  recursive.unlock();
  EXPECT_TRUE(recursive.owns_lock());
  std::jthread([&, owner = pthread_self()] {
    EXPECT_FALSE(lock.owns_lock() || lock.try_lock());
    expectRefusal(lock, owner);
    expectRefusal(recursive, owner);
  }).join();
  lock.unlock();
  recursive.unlock();
  EXPECT_FALSE(recursive.owns_lock());
  for (const bool release : {false, true, true}) {
    if (lock.owns_lock()) lock.unlock();
    Tarvo::Locking::ConditionalGuard(lock).releaseIs(release);
    EXPECT_EQ(lock.owns_lock(), !release);
  }
  expectRefusal(lock, 0);
  expectRefusal(recursive, 0);
}

}  // namespace
